// The table of live blocks: 2^20 buckets by address, each a chain of blocks of 1,024 slots.
//
// The report shows the slots in their order, so the order is part of the contract. A release blanks a slot, and the
// earliest blank slot of a bucket is used next. Two live slots may hold the same address; the earlier one is found
// first. Address 0 marks a blank slot and cannot be held.
//
// A block has 1,024 slots, but memory only for those that it has used: its size grows in powers of two. The addresses
// are packed in front, so that a search scans a few cache lines. The rest of a slot is the block's size and the number
// of its origin. A chain of more than one block is not scanned: it has an index.
#pragma once

#include "block_arena.h"
#include "chain_index.h"
#include "qor/system/Types.h"
#include "zero_memory.h"

#include <bit>
#include <bitset>
#include <cstddef>
#include <unordered_map>
#include <vector>

namespace qor::heap {

//
// SIZE is the width of sizes: uint32 or uint64.
template <class SIZE>
class allocation_table {
public:
    // Memory layout: this header, then `capacity` addresses, then `capacity` slot_data.
    struct __block {
        struct slot_data {
            SIZE size;
            uint32 origin;
        };

        static constexpr uint32 slot_count = 1024;
        static constexpr std::size_t full_size = 16 + slot_count * (sizeof(uint64) + sizeof(slot_data));

        __block* next;
        uint16 capacity;    // slots that have memory; the others are blank
        uint16 first_blank; // no slot before this one is blank
        uint16 rank;        // of the block's memory in the arena
        bool has_chain;     // the block is the first of several, and the chain has an index

        uint64* addresses() noexcept { return reinterpret_cast<uint64*>(this + 1); }
        const uint64* addresses() const noexcept { return reinterpret_cast<const uint64*>(this + 1); }
        slot_data* data() noexcept { return reinterpret_cast<slot_data*>(addresses() + capacity); }
        const slot_data* data() const noexcept { return reinterpret_cast<const slot_data*>(addresses() + capacity); }
    };

    using slot_data = typename __block::slot_data;

    // Identifies a slot by its place. Blocks move when they grow, so a pointer would not last.
    struct __entry {
        uint32 bucket;
        uint32 block; // its number in the chain
        uint32 slot;
    };

    static constexpr uint32 bucket_count = 1u << 20;

    // The heads take 8 MiB, of which most logs use little: the rest is not even touched.
    allocation_table() noexcept { zero_memory(m_heads, sizeof m_heads); }
    allocation_table(const allocation_table&) = delete;
    allocation_table& operator=(const allocation_table&) = delete;

    // Does not free the blocks, which saves time if the process ends with the table.
    ~allocation_table() = default;

    // Frees the memory of all blocks; the table is then empty.
    void free_all() noexcept;

    static constexpr uint32 bucket_of(uint64 address) noexcept {
        return static_cast<uint32>(address >> 10) & (bucket_count - 1);
    }

    // Prefetch the memory that a search for the address will read: first the bucket's head and, when that has had time
    // to arrive, the first block.
    void prefetch_head(uint64 address) noexcept {
        __builtin_prefetch(&m_heads[bucket_of(address)]);
        if (!m_chains.empty())
            prefetch_chain(address);
    }
    void prefetch_block(uint64 address) noexcept {
        if (const __block* const block = m_heads[bucket_of(address)]) {
            __builtin_prefetch(block);
            __builtin_prefetch(reinterpret_cast<const char*>(block) + 64);
        }
        if (!m_chains.empty())
            prefetch_place(address);
    }

    // Returns the earliest blank slot of the address's bucket. It stays blank until `set` gives it an address. Throws
    // std::bad_alloc.
    __entry find_blank(uint64 address);

    // Finds the earliest slot that holds the address, which is not 0. Returns false if no slot does.
    bool find_entry(uint64 address, __entry& found) noexcept;

    // Blanks the earliest slot that holds the address and returns its other data, valid until a block is added. Returns
    // null if no slot holds it. Any blank slot counts as holding address 0.
    const slot_data* release(uint64 address) noexcept;

    // Same as find_blank and set, without naming the slot in between: puts the block in the earliest blank slot of its
    // bucket. Throws std::bad_alloc.
    void add(uint64 address, SIZE size, uint32 origin);

    // Requires a blank slot that find_blank has just returned.
    void set(const __entry& entry, uint64 address, SIZE size, uint32 origin);
    uint64 address(const __entry& entry) const noexcept;
    SIZE size(const __entry& entry) const noexcept;
    uint32 origin(const __entry& entry) const noexcept;
    void set_origin(const __entry& entry, uint32 origin) noexcept;

    // Calls visit(address, size, origin) for every live slot: buckets, chains and slots in their order.
    template <class VISIT>
    void walk(VISIT visit) const {
        walk_blocks([&visit](const __block* block) {
            for (uint32 slot = 0; slot < block->capacity; ++slot)
                if (const uint64 address = block->addresses()[slot])
                    visit(address, block->data()[slot].size, block->data()[slot].origin);
        });
    }

    // Gives every live slot the origin that renumber(origin) returns.
    template <class RENUMBER>
    void renumber_origins(RENUMBER renumber) {
        walk_blocks([&renumber](__block* block) {
            for (uint32 slot = 0; slot < block->capacity; ++slot)
                if (block->addresses()[slot] != 0)
                    block->data()[slot].origin = renumber(block->data()[slot].origin);
        });
    }

private:
    // The data of address 0 when it is released.
    static constexpr slot_data nothing{0, 0};

    // Two small blocks of 32 bytes share a cache line.
    static constexpr std::size_t smallest_block = std::bit_ceil(sizeof(__block) + sizeof(uint64) + sizeof(slot_data));

    // A chain of more than one block.
    struct chain {
        std::vector<__block*> blocks;
        std::vector<uint16> live; // slots of each block that are not blank
        chain_index index;

        uint64 address_at(uint32 place) const noexcept {
            return blocks[place / __block::slot_count]->addresses()[place % __block::slot_count];
        }
        void append(__block* block);
        void enter(uint64 address, uint32 place);
        const slot_data* release(uint64 address) noexcept;
    };

    // A page of heads. The table remembers which pages have a block.
    static constexpr uint32 group = 512;

    template <class VISIT>
    void walk_blocks(VISIT visit) const {
        for (uint32 first = 0; first < bucket_count; first += group)
            if (m_used_groups[first / group])
                for (uint32 bucket = first; bucket < first + group; ++bucket)
                    for (__block* block = m_heads[bucket]; block != nullptr; block = block->next)
                        visit(block);
    }

    // Returns null if the bucket has no chain. The last chain is remembered because it is often wanted again.
    chain* find_chain(uint32 bucket) noexcept {
        if (bucket != m_recent_bucket) {
            const auto found = m_chains.find(bucket);
            if (found == m_chains.end())
                return nullptr;
            m_recent_bucket = bucket;
            m_recent = &found->second;
        }
        return m_recent;
    }
    chain& chain_of(uint32 bucket) noexcept { return *find_chain(bucket); }
    void make_chain(uint32 bucket);
    __block* make_block(uint32 rank);
    __block* grow(__block* old);
    __block* find_blank_in_head(uint32 bucket, uint32& slot);
    __entry find_blank_in_chain(uint32 bucket);
    void prefetch_chain(uint64 address) noexcept;
    void prefetch_place(uint64 address) noexcept;
    __block* resolve(const __entry& entry) const noexcept;

    block_arena m_arena{smallest_block, __block::full_size};
    __block* m_heads[bucket_count];
    std::bitset<bucket_count / group> m_used_groups;
    std::unordered_map<uint32, chain> m_chains; // by bucket
    uint32 m_recent_bucket = bucket_count;      // the bucket of m_recent; initially no bucket
    chain* m_recent = nullptr;
};

} // namespace qor::heap
