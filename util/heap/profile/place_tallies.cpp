#include "place_tallies.h"

#include <algorithm>

namespace qor::heap {

void place_tallies::enlarge(uint32 place) {
    m_tallies.grow(place + std::size_t{1});
    m_temporary.grow(place + std::size_t{1});
    m_history_of.grow(place + std::size_t{1});
}

void place_tallies::move(uint32 from, uint32 to, uint64 size) {
    tally& old = current(from);
    old.allocated.bytes -= size;
    --old.allocated.blocks;
    release(from, size);
    allocate(to, size);
}

// What was live when a part began counts in it.
void place_tallies::close_parts(uint32 place, tally& of, uint32 now) {
    const auto last = static_cast<uint32>(of.stamp & part_mask);
    if (m_history_of[place] == no_history && (of.least != 0 || of.live.bytes != 0)) {
        m_history_of[place] = static_cast<uint32>(m_histories.size());
        m_histories.push_back({});
    }
    if (m_history_of[place] != no_history) {
        history& to = m_histories[m_history_of[place]];
        to[last] = of.least;
        for (uint32 part = last + 1; part < now; ++part)
            to[part] = of.live.bytes;
    }
    of.least = of.live.bytes;
}

void place_tallies::begin_part() {
    const auto part = static_cast<uint32>(m_stamp & part_mask);
    if (part + 1 < most_parts) {
        ++m_stamp;
        return;
    }
    for (uint32 place = 0; place < count(); ++place) {
        tally& each = m_tallies[place];
        if (each.stamp / one_peak != m_stamp / one_peak)
            each.at_peak = each.live;
        close_parts(place, each, most_parts);
        each.stamp = (m_stamp & ~part_mask) | (most_parts / 2);
    }
    for (std::size_t place = 0; place < m_histories.size(); ++place) {
        history& each = m_histories[place];
        for (uint32 i = 0; i < most_parts / 2; ++i)
            each[i] = std::min(each[2 * i], each[2 * i + 1]);
        std::fill(each.begin() + most_parts / 2, each.end(), 0);
    }
    m_stamp = (m_stamp & ~part_mask) | (most_parts / 2);
}

place_tallies::result place_tallies::sums_of(uint32 place) {
    const tally& found = current(place);
    return {found.live, found.at_peak, found.allocated, m_temporary[place], profile::growth::none};
}

place_tallies::result place_tallies::of(uint32 place) {
    result found = sums_of(place);
    found.growth = growth_of(place, m_tallies[place]);
    return found;
}

profile::growth place_tallies::growth_of(uint32 place, const tally& of) const {
    if (of.live.bytes == 0)
        return profile::growth::none;
    const auto parts = static_cast<uint32>(m_stamp & part_mask) + 1;
    history least = m_histories[m_history_of[place]];
    least[parts - 1] = of.least;
    uint32 rises = 0, falls = 0, last_rise = 0;
    uint64 most = least[0];
    for (uint32 i = 1; i < parts; ++i) {
        if (least[i] > least[i - 1]) {
            ++rises;
            last_rise = i;
        }
        falls += least[i] < least[i - 1];
        most = std::max(most, least[i]);
    }
    const bool is_late = last_rise >= parts - std::max(parts / 4, 1U);
    if (rises >= 3 && rises >= 3 * falls && is_late && least[parts - 1] == most)
        return profile::growth::growing;
    const bool rises_first = least[0] != 0;
    const bool rises_last = of.live.bytes > least[parts - 1];
    return falls == 0 && rises + rises_first + rises_last == 1 ? profile::growth::once : profile::growth::none;
}

} // namespace qor::heap
