#include "chain_index.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace qor::heap {

// Merges two heaps and returns the root.
uint32 chain_index::meld(uint32 a, uint32 b) noexcept {
    if (b < a)
        std::swap(a, b);
    m_links[b].sibling = std::exchange(m_links[a].child, b);
    return a;
}

uint32 chain_index::add_repeated(uint32 first, uint32 place) {
    const std::size_t needed = std::max(first, place) + std::size_t{1};
    if (m_links.size() < needed)
        m_links.resize(needed);
    return meld(first, place);
}

// Removes the root `first` and returns the new root, or `none` if the heap is empty then.
uint32 chain_index::take_repeated(uint32 first) noexcept {
    if (first >= m_links.size())
        return none;
    // Neighbours are melded in pairs, then the pairs from the last to the first.
    uint32 rest = std::exchange(m_links[first].child, none);
    uint32 pairs = none;
    while (rest != none) {
        uint32 root = rest;
        rest = std::exchange(m_links[root].sibling, none);
        if (rest != none) {
            const uint32 partner = rest;
            rest = std::exchange(m_links[partner].sibling, none);
            root = meld(root, partner);
        }
        m_links[root].sibling = std::exchange(pairs, root);
    }
    uint32 root = none;
    while (pairs != none) {
        const uint32 next = pairs;
        pairs = std::exchange(m_links[next].sibling, none);
        root = root == none ? next : meld(root, next);
    }
    return root;
}

void chain_index::set_has_blank(uint32 block, bool has_blank) {
    const std::size_t word = block / 64;
    const uint64 bit = uint64{1} << block % 64;
    if (word >= m_blank.size())
        m_blank.resize(word + 1);
    if (has_blank) {
        m_blank[word] |= bit;
        m_blank_word = std::min(m_blank_word, word);
    } else {
        m_blank[word] &= ~bit;
    }
}

uint32 chain_index::first_with_blank() noexcept {
    for (; m_blank_word < m_blank.size(); ++m_blank_word)
        if (const uint64 word = m_blank[m_blank_word])
            return static_cast<uint32>(m_blank_word * 64) + static_cast<uint32>(std::countr_zero(word));
    return none;
}

} // namespace qor::heap
