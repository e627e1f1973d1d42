// Memory for the blocks of the allocation table: one size per power of two, from a cache half-line of 32 bytes on,
// cut from large chunks. A block that grows leaves its old memory to the next one that needs that size.
#pragma once

#include "qor/system/Types.h"

#include <cstddef>
#include <vector>

namespace qor::heap {

class block_arena {
public:
    // Sizes are 32 << rank bytes; the last rank is a full block of the table.
    static constexpr uint32 rank_count = 10;
    static std::size_t size_of(uint32 rank) noexcept;

    // Never fails: throws std::bad_alloc. Aligned to its size, up to a cache line. Not cleared.
    void* take(uint32 rank);
    void give_back(void* memory, uint32 rank) noexcept;

    // Blocks of the table live as long as the process, whatever becomes of the analyser: so does their memory.
    static block_arena& of_process();

private:
    struct free_block {
        free_block* next;
    };

    static constexpr std::size_t cache_line = 64;
    static constexpr std::size_t chunk_size = std::size_t{1} << 20;

    std::byte* m_next = nullptr;
    std::size_t m_left = 0;
    free_block* m_free[rank_count] = {};
    std::vector<std::byte*> m_chunks;
};

} // namespace qor::heap
