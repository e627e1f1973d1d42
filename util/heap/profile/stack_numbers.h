// Gives equal modules, frames, stacks and texts one number each in a profile that is being made.
#pragma once

#include "heap/table/hashing.h"
#include "heap/table/number_index.h"
#include "profile.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace qor::heap {

class stack_numbers {
public:
    // `of` is empty, but for what each profile has.
    explicit stack_numbers(profile& of) : m_of(of) {}

    uint32 text(std::string_view text);

    // By path and build id. The addresses of the first one count.
    uint32 module(const profile::module& wanted);
    uint32 frame(const profile::frame& wanted);

    // The stack of one frame.
    uint32 node(uint32 frame);

    // Numbers for many nodes at once. `parent` and `frame` give the parent and the frame of each; a parent stands
    // before its children. Those with a number other than 0 in `numbers` are wanted, and get their numbers there; node
    // 0 is the empty stack and has none.
    template <class PARENT, class FRAME>
    void nodes(std::vector<uint32>& numbers, PARENT parent, FRAME frame);

private:
    template <class ALL, class ITEM, class EQUAL>
    static uint32 find_or_add(number_index& index, ALL& all, uint32 hash, const ITEM& wanted, EQUAL equal);

    // The hash of a node is made of those of its parent and its frame, so that it is known before the parent's number.
    static uint32 hash_of_node(uint32 parent, uint32 frame) noexcept {
        return hashing::finish(hashing::mix(hashing::key, uint64{parent} << 32 | frame));
    }
    static constexpr uint32 empty_hash = 0;

    uint32 node(uint32 hash, const profile::node& wanted);

    profile& m_of;
    number_index m_texts, m_modules, m_frames, m_nodes;
};

// A look-up in the index waits for memory, so what it will need is fetched some nodes ahead.
template <class PARENT, class FRAME>
void stack_numbers::nodes(std::vector<uint32>& numbers, PARENT parent, FRAME frame) {
    struct wanted_node {
        uint32 at;
        uint32 hash;
        profile::node is; // its parent as `parent` gives it
    };
    std::vector<wanted_node> all;
    all.reserve(static_cast<std::size_t>(std::ranges::count_if(numbers, [](uint32 each) { return each != 0; })) + 1);
    all.push_back({0, empty_hash, {}});
    for (uint32 i = 1; i < numbers.size(); ++i)
        if (numbers[i] != 0) {
            const profile::node is{parent(i), frame(i)};
            all.push_back({i, hash_of_node(all[numbers[is.parent]].hash, is.frame), is});
            numbers[i] = static_cast<uint32>(all.size() - 1);
        }
    m_nodes.reserve(all.size());
    m_of.nodes.reserve(m_of.nodes.size() + all.size());
    constexpr std::size_t lead = 16;
    for (std::size_t i = 1; i < all.size(); ++i) {
        m_nodes.prefetch(all[std::min(i + lead, all.size() - 1)].hash);
        const wanted_node& each = all[i];
        numbers[each.at] = node(each.hash, {numbers[each.is.parent], each.is.frame});
    }
}

} // namespace qor::heap
