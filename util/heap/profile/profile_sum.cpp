#include "profile_sum.h"

#include "profile_maker.h"

#include <algorithm>

namespace qor::heap {

void profile_sum::add(const profile& one) {
    add_places(one);
    profile::sums& to = m_sum.totals;
    const profile::sums& from = one.totals;
    to.live += from.live;
    to.allocated += from.allocated;
    to.temporary += from.temporary;
    to.inherited += from.inherited;
    to.peak.live += from.peak.live;
    if (m_count == 0)
        to.peak = from.peak;
    else
        to.peak.time_ns = to.peak.records = 0;
    to.records += from.records;
    to.bad_frees += from.bad_frees;
    to.lost_records += from.lost_records;
    for (profile::bad_free each : one.bad_frees) {
        each.caller = m_numbers.text(one.texts[each.caller]);
        if (m_sum.bad_frees.size() < profile::most_bad_frees)
            m_sum.bad_frees.push_back(each);
    }
    m_sum.losses.insert(m_sum.losses.end(), one.losses.begin(), one.losses.end());
    m_sum.processes.insert(m_sum.processes.end(), one.processes.begin(), one.processes.end());
    m_sum.has_stacks |= one.has_stacks;
    m_sum.is_partial |= one.is_partial;
    m_have_times &= one.has_times;
    m_timelines.push_back(one.timeline);
    const uint64 start = one.processes.empty() ? 0 : one.processes.front().start_ns;
    for (profile::moment& each : m_timelines.back())
        each.time_ns += start;
    ++m_count;
}

void profile_sum::add_places(const profile& one) {
    std::vector<uint32> texts, modules(1), frames, nodes(one.nodes.size(), 1);
    nodes.front() = 0;
    for (const std::string& each : one.texts)
        texts.push_back(m_numbers.text(each));
    for (std::size_t i = 1; i < one.modules.size(); ++i)
        modules.push_back(m_numbers.module(one.modules[i]));
    for (const profile::frame& each : one.frames)
        frames.push_back(m_numbers.frame({modules[each.module], each.address}));
    m_numbers.nodes(
        nodes, [&](std::size_t i) { return one.nodes[i].parent; },
        [&](std::size_t i) { return frames[one.nodes[i].frame]; });
    for (profile::place each : one.places) {
        each.node = nodes[each.node];
        each.caller = texts[each.caller];
        each.type_name = texts[each.type_name];
        each.file = texts[each.file];
        const uint32 hash = hash_of_place(each);
        const auto is_it = [&](uint32 other) { return is_same_place(m_sum.places[other], each); };
        if (const number_index::cell* const found = m_places.find(hash, is_it)) {
            profile::place& to = m_sum.places[found->number];
            to.live += each.live;
            to.at_peak += each.at_peak;
            to.allocated += each.allocated;
            to.temporary += each.temporary;
            to.growth = std::max(to.growth, each.growth);
        } else {
            m_places.add(hash, static_cast<uint32>(m_sum.places.size()));
            m_sum.places.push_back(each);
        }
    }
}

// The sum changes whenever one of the parts does.
void profile_sum::merge_timelines() {
    struct change {
        profile::moment now;
        std::size_t of;
    };
    std::vector<change> changes;
    for (std::size_t i = 0; i < m_timelines.size(); ++i)
        for (const profile::moment& each : m_timelines[i])
            changes.push_back({each, i});
    std::ranges::stable_sort(changes, {}, [](const change& each) { return each.now.time_ns; });
    if (changes.empty())
        return;
    const uint64 start = changes.front().now.time_ns;
    std::vector<profile::moment> last(m_timelines.size()), all;
    profile::moment sum;
    for (const change& each : changes) {
        profile::moment& before = last[each.of];
        sum.time_ns = each.now.time_ns - start;
        sum.records += each.now.records - before.records;
        sum.live.bytes += each.now.live.bytes - before.live.bytes;
        sum.live.blocks += each.now.live.blocks - before.live.blocks;
        before = each.now;
        all.push_back(sum);
    }
    // The extremes of each of as many parts as there may be, and the end.
    const std::size_t step = all.size() / (profile::most_moments / 2 - 1) + 1;
    std::vector<profile::moment>& kept = m_sum.timeline;
    for (std::size_t begin = 0; begin < all.size(); begin += step) {
        const auto first = all.begin() + static_cast<std::ptrdiff_t>(begin);
        const auto end = all.begin() + static_cast<std::ptrdiff_t>(std::min(begin + step, all.size()));
        auto [least, most] =
            std::minmax_element(first, end, [](const auto& a, const auto& b) { return a.live.bytes < b.live.bytes; });
        kept.push_back(*std::min(least, most));
        if (least != most)
            kept.push_back(*std::max(least, most));
    }
    if (kept.back() != all.back())
        kept.push_back(all.back());
}

profile profile_sum::take() {
    m_sum.has_times = m_have_times && m_count != 0;
    if (m_count > 1 && m_sum.has_times) {
        merge_timelines();
    } else if (m_count == 1) {
        m_sum.timeline = std::move(m_timelines.front());
        for (profile::moment& each : m_sum.timeline)
            each.time_ns -= m_sum.processes.empty() ? 0 : m_sum.processes.front().start_ns;
    }
    return std::move(m_sum);
}

} // namespace qor::heap
