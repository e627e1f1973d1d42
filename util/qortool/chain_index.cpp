#include "chain_index.h"

#include <algorithm>
#include <bit>
#include <functional>
#include <utility>

void chain_index::add_repeated(number_index::cell& first, uint64 address, uint32 place) {
    std::vector<uint32>& later = m_later[address];
    later.push_back(place > first.number ? place : std::exchange(first.number, place));
    std::push_heap(later.begin(), later.end(), std::greater<>());
}

// False: the first place was the only one.
bool chain_index::take_repeated(number_index::cell& first, uint64 address) noexcept {
    if (m_later.empty())
        return false;
    const auto found = m_later.find(address);
    if (found == m_later.end())
        return false;
    std::vector<uint32>& later = found->second;
    std::pop_heap(later.begin(), later.end(), std::greater<>());
    first.number = later.back();
    later.pop_back();
    if (later.empty())
        m_later.erase(found);
    return true;
}

void chain_index::set_room(uint32 block, bool has_room) {
    const std::size_t word = block / 64;
    const uint64 bit = uint64{1} << block % 64;
    if (word >= m_room.size())
        m_room.resize(word + 1);
    if (has_room) {
        m_room[word] |= bit;
        m_room_word = std::min(m_room_word, word);
    } else {
        m_room[word] &= ~bit;
    }
}

uint32 chain_index::first_room() noexcept {
    for (; m_room_word < m_room.size(); ++m_room_word)
        if (const uint64 word = m_room[m_room_word])
            return static_cast<uint32>(m_room_word * 64) + static_cast<uint32>(std::countr_zero(word));
    return none;
}
