#include "allocation_table.h"

#include "address_scan.h"
#include "block_arena.h"

#include <algorithm>
#include <cstring>

namespace {

using __block = allocation_table::__block;

uint32 capacity_of(uint32 rank) noexcept {
    return static_cast<uint32>((block_arena::size_of(rank) - sizeof(__block)) /
                               (sizeof(uint64) + sizeof(__block::slot_data)));
}

__block* make_block(uint32 rank) {
    void* const memory = block_arena::of_process().take(rank);
    auto* const block = new (memory) __block{nullptr, static_cast<uint16>(capacity_of(rank)), 0, rank};
    std::memset(block->addresses(), 0, block->capacity * sizeof(uint64));
    return block;
}

// The same block with room for more slots; the old memory is gone.
__block* grow(__block* old) {
    __block* const larger = make_block(old->rank + 1);
    larger->next = old->next;
    larger->first_blank = old->first_blank;
    std::copy_n(old->addresses(), old->capacity, larger->addresses());
    std::copy_n(old->data(), old->capacity, larger->data());
    block_arena::of_process().give_back(old, old->rank);
    return larger;
}

} // namespace

static_assert(sizeof(__block) == 16 && __block::full_size == 16 + 1024 * 16);

allocation_table::__entry allocation_table::find_blank(uint64 address) {
    const uint32 bucket = bucket_of(address);
    uint32 number = 0;
    __block** link = &m_heads[bucket];
    for (; *link != nullptr; link = &(*link)->next, ++number) {
        __block* block = *link;
        const uint32 slot = find_address(block->addresses(), block->first_blank, block->capacity, 0);
        block->first_blank = static_cast<uint16>(slot);
        if (slot == __block::slot_count)
            continue;
        if (slot == block->capacity)
            *link = grow(block);
        return {bucket, number, slot};
    }
    *link = make_block(0);
    return {bucket, number, 0};
}

bool allocation_table::find_entry(uint64 address, __entry& found) const noexcept {
    const uint32 bucket = bucket_of(address);
    uint32 number = 0;
    for (const __block* block = m_heads[bucket]; block != nullptr; block = block->next, ++number) {
        const uint32 slot = find_address(block->addresses(), 0, block->capacity, address);
        if (slot != block->capacity) {
            found = {bucket, number, slot};
            return true;
        }
    }
    return false;
}

bool allocation_table::release(uint64 address) noexcept {
    for (__block* block = m_heads[bucket_of(address)]; block != nullptr; block = block->next) {
        const uint32 slot = find_address(block->addresses(), 0, block->capacity, address);
        if (slot != block->capacity) {
            block->addresses()[slot] = 0;
            block->first_blank = std::min(block->first_blank, static_cast<uint16>(slot));
            return true;
        }
        // The slots that have no memory yet are blank too.
        if (address == 0 && block->capacity < __block::slot_count)
            return true;
    }
    return false;
}

allocation_table::__block* allocation_table::resolve(const __entry& entry) const noexcept {
    __block* block = m_heads[entry.bucket];
    for (uint32 number = entry.block; number != 0; --number)
        block = block->next;
    return block;
}

void allocation_table::set(const __entry& entry, uint64 address, uint32 size, uint32 origin) noexcept {
    __block* const block = resolve(entry);
    block->addresses()[entry.slot] = address;
    block->data()[entry.slot] = {size, origin};
}

uint64 allocation_table::address(const __entry& entry) const noexcept {
    return resolve(entry)->addresses()[entry.slot];
}

uint32 allocation_table::origin(const __entry& entry) const noexcept {
    return resolve(entry)->data()[entry.slot].origin;
}

void allocation_table::set_origin(const __entry& entry, uint32 origin) noexcept {
    resolve(entry)->data()[entry.slot].origin = origin;
}
