// Memory for the blocks of one allocation table, cut from large chunks: one size per power of two, and the size of a
// full block. A block that grows leaves its old memory for reuse by the next block of that size.
#pragma once

#include "qor/system/Types.h"

#include <cstddef>
#include <vector>

namespace qor::heap {

class block_arena {
public:
    // The sizes are smallest << rank, except the last one, which is `largest`.
    static constexpr uint32 rank_count = 10;
    block_arena(std::size_t smallest, std::size_t largest) noexcept : m_smallest(smallest), m_largest(largest) {}
    block_arena(const block_arena&) = delete;
    block_arena& operator=(const block_arena&) = delete;

    // The memory outlives the arena, unless free_all() frees it.
    ~block_arena() = default;

    std::size_t size_of(uint32 rank) const noexcept { return rank + 1 < rank_count ? m_smallest << rank : m_largest; }

    // Aligned to its size, up to a cache line. Not cleared. Throws std::bad_alloc.
    void* take(uint32 rank);
    void give_back(void* memory, uint32 rank) noexcept;

    // Returns all memory to the system, including memory in use.
    void free_all() noexcept;

private:
    struct free_block {
        free_block* next;
    };

    static constexpr std::size_t cache_line = 64;
    static constexpr std::size_t chunk_size = std::size_t{1} << 20;

    std::size_t m_smallest;
    std::size_t m_largest;
    std::byte* m_next = nullptr;
    std::size_t m_left = 0;
    free_block* m_free[rank_count] = {};
    std::vector<std::byte*> m_chunks;
};

} // namespace qor::heap
