// The index of a bucket with more than one block: the place of each address, and the blocks with a blank slot. Without
// it, every record would scan a chain of perhaps a thousand blocks.
#pragma once

#include "hashing.h"
#include "number_index.h"

#include <cstddef>
#include <vector>

namespace qor::heap {

// A place is the number of a slot in the whole chain: block number times 1,024 plus slot. Addresses are never 0.
class chain_index {
public:
    static constexpr uint32 none = number_index::none;

    // `address_at(place)` returns the address in a slot of the chain.
    template <class ADDRESS_AT>
    void add(uint64 address, uint32 place, ADDRESS_AT address_at) {
        const uint32 hash = hashing::of_address(address);
        number_index::cell* const first = find_cell(hash, address, address_at);
        if (first == nullptr)
            m_first.add(hash, place);
        else
            first->number = add_repeated(first->number, place);
    }

    // Returns the earliest place of the address, or `none`.
    template <class ADDRESS_AT>
    uint32 find(uint64 address, ADDRESS_AT address_at) noexcept {
        const number_index::cell* const first = find_cell(hashing::of_address(address), address, address_at);
        return first != nullptr ? first->number : none;
    }

    // Returns the same as find() and removes that place.
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

    // Prefetch the memory that a search will read. Call likely_place() when that of prefetch() has had time to arrive;
    // it returns the place where the address may be, or `none`.
    void prefetch(uint64 address) const noexcept { m_first.prefetch(hashing::of_address(address)); }
    uint32 likely_place(uint64 address) noexcept {
        const number_index::cell* const first = m_first.find(hashing::of_address(address), [](uint32) { return true; });
        return first != nullptr ? first->number : none;
    }

    // Records whether a block has a blank slot.
    void set_has_blank(uint32 block, bool has_blank);

    // Returns the first block that has a blank slot, or `none`.
    uint32 first_with_blank() noexcept;

private:
    template <class ADDRESS_AT>
    number_index::cell* find_cell(uint32 hash, uint64 address, ADDRESS_AT address_at) noexcept {
        return m_first.find(hash, [&](uint32 place) { return address_at(place) == address; });
    }

    // The places of one address form a pairing heap; `m_first` has its root.
    struct link {
        uint32 child = none;
        uint32 sibling = none;
    };

    uint32 add_repeated(uint32 first, uint32 place);
    uint32 take_repeated(uint32 first) noexcept;
    uint32 meld(uint32 a, uint32 b) noexcept;

    number_index m_first;         // the earliest place of each address
    std::vector<link> m_links;    // by place, up to the largest place of an address with several
    std::vector<uint64> m_blank;  // a bit for each block
    std::size_t m_blank_word = 0; // no bit is set in a word before this one
};

} // namespace qor::heap
