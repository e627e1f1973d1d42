// Beside a bucket whose blocks are more than one: where each address is and which blocks have room, so that a chain of
// a thousand blocks is not scanned for every record.
#pragma once

#include "hashing.h"
#include "number_index.h"

#include <unordered_map>
#include <vector>

// A place is the number of a slot in the whole chain: block number times 1,024 plus slot. Addresses are not 0.
class chain_index {
public:
    static constexpr uint32 none = number_index::none;

    // `address_at(place)` is the address in a slot of the chain.
    template <class ADDRESS_AT>
    void add(uint64 address, uint32 place, ADDRESS_AT address_at) {
        const uint32 hash = hash_of(address);
        number_index::cell* const first = find_cell(hash, address, address_at);
        if (first == nullptr)
            m_first.add(hash, place);
        else
            add_repeated(*first, address, place);
    }

    // The earliest place of the address, or none.
    template <class ADDRESS_AT>
    uint32 find(uint64 address, ADDRESS_AT address_at) noexcept {
        const number_index::cell* const first = find_cell(hash_of(address), address, address_at);
        return first != nullptr ? first->number : none;
    }

    // The same, and forgets it.
    template <class ADDRESS_AT>
    uint32 take(uint64 address, ADDRESS_AT address_at) noexcept {
        number_index::cell* const first = find_cell(hash_of(address), address, address_at);
        if (first == nullptr)
            return none;
        const uint32 place = first->number;
        if (!take_repeated(*first, address))
            m_first.remove(first);
        return place;
    }

    // Whether a block may have room. It is found out when it is asked for a blank slot.
    void set_room(uint32 block, bool has_room);

    // The first block that may have room, or none.
    uint32 first_room() noexcept;

private:
    static uint32 hash_of(uint64 address) noexcept { return hashing::of_address(address); }

    struct address_hash {
        std::size_t operator()(uint64 address) const noexcept { return hash_of(address); }
    };

    template <class ADDRESS_AT>
    number_index::cell* find_cell(uint32 hash, uint64 address, ADDRESS_AT address_at) noexcept {
        return m_first.find(hash, [&](uint32 place) { return address_at(place) == address; });
    }

    void add_repeated(number_index::cell& first, uint64 address, uint32 place);
    bool take_repeated(number_index::cell& first, uint64 address) noexcept;

    number_index m_first; // the earliest place of each address
    std::unordered_map<uint64, std::vector<uint32>, address_hash> m_later; // the others, as heaps: the earliest in front
    std::vector<uint64> m_room; // a bit for each block
    std::size_t m_room_word = 0; // no bit is set in a word before this one
};
