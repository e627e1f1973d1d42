// Puts the places of a replay, and what the file of stacks says of them, into a profile.
#pragma once

#include "heap/log/stacks_log.h"
#include "heap/origin/origin_table.h"
#include "place_tallies.h"
#include "profile.h"
#include "stack_numbers.h"

#include <string_view>
#include <vector>

namespace qor::heap {

class profile_maker {
public:
    // Both stay as they are as long as the maker lives.
    profile_maker(const origin_table& origins, const stacks_log& stacks);

    profile& made() noexcept { return m_made; }
    uint32 text(std::string_view text) { return m_numbers.text(text); }

    // Adds the sums of a place to those of all, whether it becomes one of the profile or not.
    void count(bool are_inherited, const place_tallies::result& found);

    // To be called for the node of each place that is to come, and then take_nodes(), before the first add().
    void need_node(uint32 recorded);
    void take_nodes();
    void reserve(std::size_t places) { m_made.places.reserve(places); }

    // Blocks that were inherited, and others of the same place, are one place.
    void add(uint32 origin, uint32 node, bool are_inherited, const place_tallies::result& found);

private:
    uint32 module_of(uint32 recorded);
    uint32 node_of_caller(std::string_view caller);
    uint32 text_of(uint32 origin_text);
    profile::place& place_of(const profile::place& wanted);

    const origin_table& m_origins;
    const stacks_log& m_stacks;
    profile m_made;
    stack_numbers m_numbers;
    number_index m_places;
    std::vector<uint32> m_nodes; // by recorded number; 0: not needed
    std::vector<uint32> m_modules;
    std::vector<uint32> m_texts; // by the number in the origins; 0: not known yet, or empty
};

// Whether both are the same place, and its hash. Sums do not count.
bool is_same_place(const profile::place& a, const profile::place& b) noexcept;
uint32 hash_of_place(const profile::place& of) noexcept;

} // namespace qor::heap
