// The index of a bucket with more than one block: where each address is and which blocks have a blank slot, so that a
// chain of a thousand blocks is not scanned for every record.
#pragma once

#include "hashing.h"
#include "number_index.h"

#include <cstddef>
#include <vector>

namespace qor::heap {

// A place is the number of a slot in the whole chain: block number times 1,024 plus slot. Addresses are not
// 0.
class chain_index {
public:
    static constexpr uint32 none = number_index::none;

    // `address_at(place)` is the address in a slot of the chain.
    template <class ADDRESS_AT>
    void add(uint64 address, uint32 place, ADDRESS_AT address_at) {
        const uint32 hash = hashing::of_address(address);
        number_index::cell* const first = find_cell(hash, address, address_at);
        if (first == nullptr)
            m_first.add(hash, place);
        else
            first->number = add_repeated(first->number, place);
    }

    // The earliest place of the address, or none.
    template <class ADDRESS_AT>
    uint32 find(uint64 address, ADDRESS_AT address_at) noexcept {
        const number_index::cell* const first = find_cell(hashing::of_address(address), address, address_at);
        return first != nullptr ? first->number : none;
    }

    // The same, and forgets it.
    template <class ADDRESS_AT>
    uint32 take(uint64 address, ADDRESS_AT address_at) noexcept {
        number_index::cell* const first = find_cell(hashing::of_address(address), address, address_at);
        if (first == nullptr)
            return none;
        const uint32 place = first->number;
        const uint32 next = take_repeated(place);
        if (next == none)
            m_first.remove(first);
        else
            first->number = next;
        return place;
    }

    // Ask the processor for what a search will read; the second, when that has had time to arrive, tells
    // where the address may be, or none.
    void prefetch(uint64 address) const noexcept { m_first.prefetch(hashing::of_address(address)); }
    uint32 likely_place(uint64 address) noexcept {
        const number_index::cell* const first = m_first.find(hashing::of_address(address), [](uint32) { return true; });
        return first != nullptr ? first->number : none;
    }

    // Whether a block has a blank slot.
    void set_has_blank(uint32 block, bool has_blank);

    // The first block that has one, or none.
    uint32 first_with_blank() noexcept;

private:
    template <class ADDRESS_AT>
    number_index::cell* find_cell(uint32 hash, uint64 address, ADDRESS_AT address_at) noexcept {
        return m_first.find(hash, [&](uint32 place) { return address_at(place) == address; });
    }

    // The places of one address are a pairing heap, of which `m_first` has the root.
    struct link {
        uint32 child = none;
        uint32 sibling = none;
    };

    uint32 add_repeated(uint32 first, uint32 place);
    uint32 take_repeated(uint32 first) noexcept;
    uint32 meld(uint32 a, uint32 b) noexcept;

    number_index m_first;         // the earliest place of each address
    std::vector<link> m_links;    // by place, as far as an address was ever repeated
    std::vector<uint64> m_blank;  // a bit for each block
    std::size_t m_blank_word = 0; // no bit is set in a word before this one
};

} // namespace qor::heap
