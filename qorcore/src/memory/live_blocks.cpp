#include "memory/live_blocks.h"

#include "memory/pages.h"

#include <algorithm>
#include <cstdint>

bool qor::memory::live_blocks::make_room() noexcept { return 2 * (m_count + 1) <= m_capacity || grow(); }

qor::memory::live_block& qor::memory::live_blocks::add(const void* address, uint64 size, block_type type,
                                                       const char* file, int line) {
    live_block& slot = m_slots[place(address)];
    m_count += slot.address == nullptr;
    slot = {address, size, type, file, line, nullptr, m_additions++};
    return slot;
}

// Moves later blocks into the gap, so that each block can be reached from its home slot without crossing a free slot.
void qor::memory::live_blocks::remove(const void* address) {
    if (find(address) == nullptr)
        return;
    std::size_t gap = place(address);
    for (std::size_t at = gap;;) {
        at = (at + 1) & (m_capacity - 1);
        if (m_slots[at].address == nullptr)
            break;
        const std::size_t from_home = (at - home(m_slots[at].address)) & (m_capacity - 1);
        if (from_home >= ((at - gap) & (m_capacity - 1))) {
            m_slots[gap] = m_slots[at];
            gap = at;
        }
    }
    m_slots[gap].address = nullptr;
    --m_count;
}

qor::memory::live_block* qor::memory::live_blocks::find(const void* address) {
    if (m_count == 0)
        return nullptr;
    live_block& slot = m_slots[place(address)];
    return slot.address != nullptr ? &slot : nullptr;
}

std::vector<qor::memory::live_block> qor::memory::live_blocks::in_order() const {
    std::vector<live_block> blocks;
    blocks.reserve(m_count);
    std::copy_if(m_slots, m_slots + m_capacity, std::back_inserter(blocks),
                 [](const live_block& slot) { return slot.address != nullptr; });
    std::sort(blocks.begin(), blocks.end(),
              [](const live_block& a, const live_block& b) { return a.sequence < b.sequence; });
    return blocks;
}

void qor::memory::live_blocks::clear() noexcept {
    unmap(m_slots, m_capacity);
    std::fill_n(m_first, first_capacity, live_block{});
    m_slots = m_first;
    m_capacity = first_capacity;
    m_count = 0;
}

void qor::memory::live_blocks::unmap(live_block* slots, std::size_t capacity) noexcept {
    if (slots != m_first)
        unmap_pages(slots, capacity * sizeof *slots);
}

// The hash mixes the address, because blocks lie at multiples of 16 and neighbours are often alive together.
std::size_t qor::memory::live_blocks::home(const void* address) const noexcept {
    const auto number = reinterpret_cast<std::uintptr_t>(address);
    return (number * 0x9e3779b97f4a7c15u >> 20) & (m_capacity - 1);
}

// Returns the slot with this address, or the free slot for it.
std::size_t qor::memory::live_blocks::place(const void* address) const noexcept {
    std::size_t at = home(address);
    while (m_slots[at].address != nullptr && m_slots[at].address != address)
        at = (at + 1) & (m_capacity - 1);
    return at;
}

bool qor::memory::live_blocks::grow() noexcept {
    const std::size_t capacity = 2 * m_capacity;
    auto* const slots = static_cast<live_block*>(map_pages(capacity * sizeof(live_block)));
    if (slots == nullptr)
        return false;
    live_block* const old = m_slots;
    const std::size_t old_capacity = m_capacity;
    m_slots = slots;
    m_capacity = capacity;
    for (std::size_t i = 0; i < old_capacity; ++i)
        if (old[i].address != nullptr)
            m_slots[place(old[i].address)] = old[i];
    unmap(old, old_capacity);
    return true;
}
