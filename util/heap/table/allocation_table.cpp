#include "allocation_table.h"

#include "address_scan.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace qor::heap {

namespace {

template <class BLOCK>
void blank(BLOCK* block, uint32 slot) noexcept {
    block->addresses()[slot] = 0;
    block->first_blank = std::min(block->first_blank, static_cast<uint16>(slot));
}

// Returns the first blank slot of a block. It may be the first slot without memory, or slot_count if the block is full.
template <class BLOCK>
uint32 find_blank_in(BLOCK* block) noexcept {
    const uint32 slot = find_address(block->addresses(), block->first_blank, block->capacity, 0);
    block->first_blank = static_cast<uint16>(slot);
    return slot;
}

} // namespace

template <class SIZE>
typename allocation_table<SIZE>::__block* allocation_table<SIZE>::make_block(uint32 rank) {
    static_assert(sizeof(__block) == 16);
    const std::size_t capacity = (m_arena.size_of(rank) - sizeof(__block)) / (sizeof(uint64) + sizeof(slot_data));
    auto* const block =
        new (m_arena.take(rank)) __block{nullptr, static_cast<uint16>(capacity), 0, static_cast<uint16>(rank), false};
    std::memset(block->addresses(), 0, capacity * sizeof(uint64));
    return block;
}

// Moves the block to memory for more slots and frees the old memory.
template <class SIZE>
typename allocation_table<SIZE>::__block* allocation_table<SIZE>::grow(__block* old) {
    __block* const larger = make_block(old->rank + 1u);
    larger->next = old->next;
    larger->first_blank = old->first_blank;
    std::copy_n(old->addresses(), old->capacity, larger->addresses());
    std::copy_n(old->data(), old->capacity, larger->data());
    m_arena.give_back(old, old->rank);
    return larger;
}

// Returns the bucket's only block and its earliest blank slot. Returns null if the bucket has a chain or needs one.
template <class SIZE>
inline typename allocation_table<SIZE>::__block* allocation_table<SIZE>::find_blank_in_head(uint32 bucket,
                                                                                            uint32& slot) {
    __block*& head = m_heads[bucket];
    if (head == nullptr) {
        head = make_block(0);
        m_used_groups.set(bucket / group);
    }
    if (head->has_chain)
        return nullptr;
    slot = find_blank_in(head);
    if (slot == head->capacity) {
        if (slot == __block::slot_count) {
            make_chain(bucket);
            return nullptr;
        }
        head = grow(head);
    }
    return head;
}

template <class SIZE>
typename allocation_table<SIZE>::__entry allocation_table<SIZE>::find_blank(uint64 address) {
    const uint32 bucket = bucket_of(address);
    uint32 slot;
    if (find_blank_in_head(bucket, slot) != nullptr)
        return {bucket, 0, slot};
    return find_blank_in_chain(bucket);
}

template <class SIZE>
void allocation_table<SIZE>::add(uint64 address, SIZE size, uint32 origin) {
    const uint32 bucket = bucket_of(address);
    uint32 slot;
    if (__block* const block = find_blank_in_head(bucket, slot)) {
        block->addresses()[slot] = address;
        block->data()[slot] = {size, origin};
        return;
    }
    set(find_blank_in_chain(bucket), address, size, origin);
}

template <class SIZE>
typename allocation_table<SIZE>::__entry allocation_table<SIZE>::find_blank_in_chain(uint32 bucket) {
    chain& all = chain_of(bucket);
    const uint32 number = all.index.first_with_blank();
    if (number == chain_index::none) {
        all.append(make_block(0));
        return {bucket, static_cast<uint32>(all.blocks.size() - 1), 0};
    }
    __block*& block = all.blocks[number];
    const uint32 slot = find_blank_in(block);
    // The first block has its full capacity before a chain is made, so a block that grows has a predecessor.
    if (slot == block->capacity)
        all.blocks[number - 1]->next = block = grow(block);
    return {bucket, number, slot};
}

template <class SIZE>
void allocation_table<SIZE>::make_chain(uint32 bucket) {
    __block* const first = m_heads[bucket];
    chain& made = m_chains[bucket];
    made.append(first);
    for (uint32 slot = 0; slot < __block::slot_count; ++slot)
        made.enter(first->addresses()[slot], slot);
    first->has_chain = true;
}

template <class SIZE>
void allocation_table<SIZE>::chain::append(__block* block) {
    if (!blocks.empty())
        blocks.back()->next = block;
    blocks.push_back(block);
    live.push_back(0);
    index.set_has_blank(static_cast<uint32>(blocks.size() - 1), true);
}

template <class SIZE>
void allocation_table<SIZE>::chain::enter(uint64 address, uint32 place) {
    const uint32 number = place / __block::slot_count;
    if (++live[number] == __block::slot_count)
        index.set_has_blank(number, false);
    index.add(address, place, [this](uint32 each) { return address_at(each); });
}

template <class SIZE>
const typename allocation_table<SIZE>::slot_data* allocation_table<SIZE>::chain::release(uint64 address) noexcept {
    if (address == 0)
        return index.first_with_blank() != chain_index::none ? &nothing : nullptr;
    const uint32 place = index.take(address, [this](uint32 each) { return address_at(each); });
    if (place == chain_index::none)
        return nullptr;
    const uint32 number = place / __block::slot_count;
    const uint32 slot = place % __block::slot_count;
    blank(blocks[number], slot);
    --live[number];
    index.set_has_blank(number, true);
    return &blocks[number]->data()[slot];
}

template <class SIZE>
bool allocation_table<SIZE>::find_entry(uint64 address, __entry& found) noexcept {
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

template <class SIZE>
const typename allocation_table<SIZE>::slot_data* allocation_table<SIZE>::release(uint64 address) noexcept {
    __block* const head = m_heads[bucket_of(address)];
    if (head == nullptr)
        return nullptr;
    if (head->has_chain)
        return chain_of(bucket_of(address)).release(address);
    const uint32 slot = find_address(head->addresses(), 0, head->capacity, address);
    // Slots that have no memory yet are blank too.
    if (slot == head->capacity)
        return address == 0 && slot < __block::slot_count ? &nothing : nullptr;
    blank(head, slot);
    return &head->data()[slot];
}

template <class SIZE>
void allocation_table<SIZE>::prefetch_chain(uint64 address) noexcept {
    if (const chain* const found = find_chain(bucket_of(address)))
        found->index.prefetch(address);
}

template <class SIZE>
void allocation_table<SIZE>::prefetch_place(uint64 address) noexcept {
    chain* const found = find_chain(bucket_of(address));
    if (found == nullptr)
        return;
    const uint32 place = found->index.likely_place(address);
    if (place != chain_index::none)
        __builtin_prefetch(&found->blocks[place / __block::slot_count]->addresses()[place % __block::slot_count]);
}

template <class SIZE>
typename allocation_table<SIZE>::__block* allocation_table<SIZE>::resolve(const __entry& entry) const noexcept {
    __block* const head = m_heads[entry.bucket];
    return entry.block == 0 ? head : m_chains.find(entry.bucket)->second.blocks[entry.block];
}

template <class SIZE>
void allocation_table<SIZE>::set(const __entry& entry, uint64 address, SIZE size, uint32 origin) {
    __block* const block = resolve(entry);
    block->addresses()[entry.slot] = address;
    block->data()[entry.slot] = {size, origin};
    if (address != 0 && m_heads[entry.bucket]->has_chain)
        chain_of(entry.bucket).enter(address, entry.block * __block::slot_count + entry.slot);
}

template <class SIZE>
uint64 allocation_table<SIZE>::address(const __entry& entry) const noexcept {
    return resolve(entry)->addresses()[entry.slot];
}

template <class SIZE>
SIZE allocation_table<SIZE>::size(const __entry& entry) const noexcept {
    return resolve(entry)->data()[entry.slot].size;
}

template <class SIZE>
uint32 allocation_table<SIZE>::origin(const __entry& entry) const noexcept {
    return resolve(entry)->data()[entry.slot].origin;
}

template <class SIZE>
void allocation_table<SIZE>::set_origin(const __entry& entry, uint32 origin) noexcept {
    resolve(entry)->data()[entry.slot].origin = origin;
}

template <class SIZE>
void allocation_table<SIZE>::free_all() noexcept {
    m_arena.free_all();
    zero_memory(m_heads, sizeof m_heads);
    m_used_groups.reset();
    m_chains = {};
    m_recent_bucket = bucket_count;
    m_recent = nullptr;
}

template class allocation_table<uint32>;
template class allocation_table<uint64>;

} // namespace qor::heap
