#include "block_arena.h"

#include "system_pages.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <new>

namespace qor::heap {

void* block_arena::take(uint32 rank) {
    if (free_block* const reused = m_free[rank]) {
        m_free[rank] = reused->next;
        return reused;
    }
    // Small blocks share a cache line; larger ones begin at the start of one.
    const std::size_t size = size_of(rank);
    const std::size_t unit = size < cache_line ? size : cache_line;
    std::size_t skip = (unit - reinterpret_cast<std::uintptr_t>(m_next) % unit) % unit;
    if (m_left < size + skip) {
        m_chunks.emplace_back();
        m_chunks.back() = static_cast<std::byte*>(system_pages::take(chunk_size));
        if (m_chunks.back() == nullptr) {
            m_chunks.pop_back();
            throw std::bad_alloc();
        }
        m_next = m_chunks.back();
        m_left = chunk_size;
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

void block_arena::free_all() noexcept {
    for (std::byte* const chunk : m_chunks)
        system_pages::give_back(chunk, chunk_size);
    m_chunks = {};
    std::fill(std::begin(m_free), std::end(m_free), nullptr);
    m_next = nullptr;
    m_left = 0;
}

} // namespace qor::heap
