#include "block_arena.h"

#include "allocation_table.h"

#include <cstdint>
#include <new>

namespace qor::heap {

std::size_t block_arena::size_of(uint32 rank) noexcept {
    return rank + 1 < rank_count ? std::size_t{32} << rank : allocation_table::__block::full_size;
}

void* block_arena::take(uint32 rank) {
    if (free_block* const reused = m_free[rank]) {
        m_free[rank] = reused->next;
        return reused;
    }
    // Two small blocks share a cache line; larger ones begin on one.
    const std::size_t size = size_of(rank);
    const std::size_t unit = size < cache_line ? size : cache_line;
    std::size_t skip = (unit - reinterpret_cast<std::uintptr_t>(m_next) % unit) % unit;
    if (m_left < size + skip) {
        m_next = static_cast<std::byte*>(::operator new (chunk_size, std::align_val_t{cache_line}));
        m_left = chunk_size;
        m_chunks.push_back(m_next);
        skip = 0;
    }
    void* const memory = m_next + skip;
    m_next += skip + size;
    m_left -= skip + size;
    return memory;
}

void block_arena::give_back(void* memory, uint32 rank) noexcept {
    m_free[rank] = new (memory) free_block{m_free[rank]};
}

block_arena& block_arena::of_process() {
    static block_arena* const made = new block_arena;
    return *made;
}

} // namespace qor::heap
