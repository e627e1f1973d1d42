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
    auto* const block = new (memory) __block{nullptr, static_cast<uint16>(capacity_of(rank)), 0,
                                           static_cast<uint16>(rank), false};
    std::memset(block->addresses(), 0, block->capacity * sizeof(uint64));
    return block;
}

// The same block with room for more slots; the old memory is gone.
__block* grow(__block* old) {
    __block* const larger = make_block(old->rank + 1u);
    larger->next = old->next;
    larger->first_blank = old->first_blank;
    std::copy_n(old->addresses(), old->capacity, larger->addresses());
    std::copy_n(old->data(), old->capacity, larger->data());
    block_arena::of_process().give_back(old, old->rank);
    return larger;
}

void blank(__block* block, uint32 slot) noexcept {
    block->addresses()[slot] = 0;
    block->first_blank = std::min(block->first_blank, static_cast<uint16>(slot));
}

// The first blank slot of a block, which may be the first without memory; slot_count: there is none.
uint32 find_blank_in(__block* block) noexcept {
    const uint32 slot = find_address(block->addresses(), block->first_blank, block->capacity, 0);
    block->first_blank = static_cast<uint16>(slot);
    return slot;
}

} // namespace

static_assert(sizeof(__block) == 16 && __block::full_size == 16 + 1024 * 16);

allocation_table::__entry allocation_table::find_blank(uint64 address) {
    const uint32 bucket = bucket_of(address);
    __block*& head = m_heads[bucket];
    if (head == nullptr)
        head = make_block(0);
    if (!head->has_chain) {
        const uint32 slot = find_blank_in(head);
        if (slot < head->capacity)
            return {bucket, 0, slot};
        if (slot < __block::slot_count) {
            head = grow(head);
            return {bucket, 0, slot};
        }
        make_chain(bucket);
    }
    return find_blank_in_chain(bucket);
}

allocation_table::__entry allocation_table::find_blank_in_chain(uint32 bucket) {
    chain& all = chain_of(bucket);
    uint32 number;
    uint32 slot;
    if (!all.find_blank(number, slot)) {
        all.append(make_block(0));
        return {bucket, static_cast<uint32>(all.blocks.size() - 1), 0};
    }
    // The first block was full before there was a second one.
    if (slot == all.blocks[number]->capacity)
        all.blocks[number - 1]->next = all.blocks[number] = grow(all.blocks[number]);
    return {bucket, number, slot};
}

void allocation_table::make_chain(uint32 bucket) {
    __block* const first = m_heads[bucket];
    chain& made = m_chains[bucket];
    made.append(first);
    for (uint32 slot = 0; slot < __block::slot_count; ++slot)
        made.index.add(first->addresses()[slot], slot, [&made](uint32 place) { return made.address_at(place); });
    first->has_chain = true;
}

void allocation_table::chain::append(__block* block) {
    if (!blocks.empty())
        blocks.back()->next = block;
    blocks.push_back(block);
    index.set_room(static_cast<uint32>(blocks.size() - 1), true);
}

bool allocation_table::chain::find_blank(uint32& number, uint32& slot) noexcept {
    while ((number = index.first_room()) != chain_index::none) {
        slot = find_blank_in(blocks[number]);
        if (slot != __block::slot_count)
            return true;
        index.set_room(number, false);
    }
    return false;
}

bool allocation_table::find_entry(uint64 address, __entry& found) noexcept {
    const uint32 bucket = bucket_of(address);
    const __block* const head = m_heads[bucket];
    if (head == nullptr)
        return false;
    if (head->has_chain) {
        chain& all = chain_of(bucket);
        const uint32 place = all.index.find(address, [&all](uint32 each) { return all.address_at(each); });
        found = {bucket, place / __block::slot_count, place % __block::slot_count};
        return place != chain_index::none;
    }
    const uint32 slot = find_address(head->addresses(), 0, head->capacity, address);
    found = {bucket, 0, slot};
    return slot != head->capacity;
}

bool allocation_table::release(uint64 address) noexcept {
    __block* const head = m_heads[bucket_of(address)];
    if (head == nullptr)
        return false;
    if (head->has_chain)
        return release_in_chain(address);
    const uint32 slot = find_address(head->addresses(), 0, head->capacity, address);
    // The slots that have no memory yet are blank too.
    if (slot == head->capacity)
        return address == 0 && slot < __block::slot_count;
    blank(head, slot);
    return true;
}

bool allocation_table::release_in_chain(uint64 address) noexcept {
    chain& all = chain_of(bucket_of(address));
    uint32 number;
    uint32 slot;
    if (address == 0)
        return all.find_blank(number, slot);
    const uint32 place = all.index.take(address, [&all](uint32 each) { return all.address_at(each); });
    if (place == chain_index::none)
        return false;
    blank(all.blocks[place / __block::slot_count], place % __block::slot_count);
    all.index.set_room(place / __block::slot_count, true);
    return true;
}

allocation_table::__block* allocation_table::resolve(const __entry& entry) const noexcept {
    __block* const head = m_heads[entry.bucket];
    return entry.block == 0 ? head : m_chains.find(entry.bucket)->second.blocks[entry.block];
}

void allocation_table::set(const __entry& entry, uint64 address, uint32 size, uint32 origin) {
    __block* const block = resolve(entry);
    block->addresses()[entry.slot] = address;
    block->data()[entry.slot] = {size, origin};
    if (address == 0 || !m_heads[entry.bucket]->has_chain)
        return;
    chain& all = chain_of(entry.bucket);
    all.index.add(address, entry.block * __block::slot_count + entry.slot,
                  [&all](uint32 place) { return all.address_at(place); });
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
