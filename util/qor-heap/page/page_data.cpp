#include "page_data.h"

#include "qor-heap/export/safe_text.h"

#include <algorithm>
#include <ranges>
#include <utility>

namespace qor::heap_tool {

using heap::profile;

namespace {

void append_number(std::string& data, uint64 value) {
    for (; value >= 0x80; value >>= 7)
        data += static_cast<char>(value | 0x80);
    data += static_cast<char>(value);
}

template <class ENTRIES, class FIELD>
void append_column(std::string& data, const ENTRIES& entries, FIELD field) {
    for (const auto& each : entries)
        append_number(data, static_cast<uint64>(field(each)));
}

// Numbers the entries that are used anew, in the order of their old numbers. 0 keeps its number.
class renumbering {
public:
    explicit renumbering(std::size_t size) : m_numbers(size) {}

    void use(uint32 old) { m_numbers[old] = 1; }
    bool is_used(uint32 old) const { return old == 0 || m_numbers[old] != 0; }
    void number() {
        uint32 next = 0;
        for (std::size_t i = 0; i < m_numbers.size(); ++i)
            if (is_used(static_cast<uint32>(i)))
                m_numbers[i] = next++;
    }
    uint32 operator[](uint32 old) const { return m_numbers[old]; }

    // After number(): entries of the old array that are used.
    template <class ENTRY>
    std::vector<ENTRY> kept(const std::vector<ENTRY>& all) const {
        std::vector<ENTRY> kept;
        for (std::size_t i = 0; i < all.size(); ++i)
            if (i == 0 || m_numbers[i] != 0)
                kept.push_back(all[i]);
        return kept;
    }

private:
    std::vector<uint32> m_numbers;
};

} // namespace

page_data::page_data(const named_profile& now, const named_profile* earlier) : m_is_comparison(earlier != nullptr) {
    text_of("");
    add_run(now, 0);
    if (earlier != nullptr)
        add_run(*earlier, 1);
}

uint32 page_data::text_of(const std::string& text) {
    const auto [known, is_new] =
        m_text_numbers.try_emplace(shortened(text, longest_text), static_cast<uint32>(m_all.texts.size()));
    if (is_new)
        m_all.texts.push_back(known->first);
    return known->second;
}

uint32 page_data::frame_of(const named_profile& run, const named_profile::function& one) {
    const function_entry key{text_of(run.text(one.name)), text_of(run.text(one.module)), text_of(run.text(one.file)),
                             one.is_library_code};
    const auto [known, is_new] = m_function_numbers.try_emplace(key, static_cast<uint32>(m_all.functions.size()));
    if (is_new)
        m_all.functions.push_back(key);
    const uint32 line = m_is_comparison ? 0 : one.line;
    const auto [frame, is_new_frame] =
        m_frame_numbers.try_emplace(pair(known->second, line), static_cast<uint32>(m_all.frames.size()));
    if (is_new_frame)
        m_all.frames.push_back({known->second, one.line});
    return frame->second;
}

uint32 page_data::child_of(uint32 parent, uint32 frame) {
    const auto [known, is_new] =
        m_node_numbers.try_emplace(pair(parent, frame), static_cast<uint32>(m_all.nodes.size()));
    if (is_new)
        m_all.nodes.push_back({parent, frame});
    return known->second;
}

void page_data::add_run(const named_profile& run, std::size_t number) {
    const profile& of = run.profile();
    m_runs.push_back(&run);

    // The frames of each stack, with the functions that are inlined there; of stacks that a place needs.
    std::vector<bool> is_used(of.nodes.size());
    for (const profile::place& each : of.places)
        is_used[each.node] = true;
    for (std::size_t i = of.nodes.size(); i-- > 1;)
        if (is_used[i])
            is_used[of.nodes[i].parent] = true;
    std::vector<std::vector<uint32>> frames(of.frames.size()); // by frame of the profile, the innermost first
    std::vector<uint32> nodes(of.nodes.size());
    for (std::size_t i = 1; i < of.nodes.size(); ++i) {
        if (!is_used[i])
            continue;
        std::vector<uint32>& inner = frames[of.nodes[i].frame];
        if (inner.empty())
            for (const named_profile::function& each : run.functions(of.nodes[i].frame))
                inner.push_back(frame_of(run, each));
        uint32 node = nodes[of.nodes[i].parent];
        for (const uint32 frame : std::views::reverse(inner))
            node = child_of(node, frame);
        nodes[i] = node;
    }

    for (const profile::place& each : of.places) {
        uint32 node = nodes[each.node];
        if (each.node == 0 || each.file != 0) {
            // The innermost function may have a source file that debug information does not know.
            const auto stack = run.stack(each);
            if (!stack.empty())
                node = child_of(node == 0 ? 0 : m_all.nodes[node].parent, frame_of(run, stack.front()));
        }
        const uint32 type = text_of(run.text(run.type_name(each)));
        const auto [known, is_new] =
            m_place_numbers.try_emplace(pair(node, type), static_cast<uint32>(m_all.places.size()));
        if (is_new) {
            m_all.places.emplace_back();
            m_all.places.back().node = node;
            m_all.places.back().type = type;
        }
        place_entry& sum = m_all.places[known->second];
        sum.is_growing = sum.is_growing || (number == 0 && each.growth == profile::growth::growing);
        for (const measure what : measures)
            sum.counts[number][static_cast<std::size_t>(what)] += counts_of(each, what);
    }
}

// The places with the largest shares of anything, in their order.
std::vector<uint32> page_data::largest(std::size_t most) const {
    std::vector<uint32> chosen(m_all.places.size());
    for (std::size_t i = 0; i < chosen.size(); ++i)
        chosen[i] = static_cast<uint32>(i);
    if (chosen.size() <= most)
        return chosen;
    double wholes[most_runs][std::size(measures)] = {};
    for (const place_entry& each : m_all.places)
        for (std::size_t run = 0; run < most_runs; ++run)
            for (std::size_t what = 0; what < std::size(measures); ++what)
                wholes[run][what] += static_cast<double>(each.counts[run][what].bytes);
    std::vector<double> shares;
    shares.reserve(m_all.places.size());
    for (const place_entry& each : m_all.places) {
        double share = 0;
        for (std::size_t run = 0; run < most_runs; ++run)
            for (std::size_t what = 0; what < std::size(measures); ++what)
                if (wholes[run][what] > 0)
                    share = std::max(share, static_cast<double>(each.counts[run][what].bytes) / wholes[run][what]);
        shares.push_back(share);
    }
    const auto middle = chosen.begin() + static_cast<std::ptrdiff_t>(most);
    std::nth_element(chosen.begin(), middle, chosen.end(),
                     [&](uint32 a, uint32 b) { return shares[a] != shares[b] ? shares[a] > shares[b] : a < b; });
    chosen.erase(middle, chosen.end());
    std::sort(chosen.begin(), chosen.end());
    return chosen;
}

// The largest places, and one more for the others.
page_data::tables page_data::selected(std::size_t most, const std::function<std::string(std::size_t)>& others) const {
    if (m_all.places.size() <= most)
        return compacted(m_all);
    tables some = m_all;
    some.places.clear();
    place_entry rest;
    const std::vector<uint32> chosen = largest(most);
    for (std::size_t i = 0, next = 0; i < m_all.places.size(); ++i) {
        const place_entry& each = m_all.places[i];
        if (next < chosen.size() && chosen[next] == i) {
            some.places.push_back(each);
            ++next;
            continue;
        }
        for (std::size_t run = 0; run < most_runs; ++run)
            for (std::size_t what = 0; what < std::size(measures); ++what)
                rest.counts[run][what] += each.counts[run][what];
    }
    const auto add = [](auto& entries, auto entry) {
        entries.push_back(std::move(entry));
        return static_cast<uint32>(entries.size() - 1);
    };
    const uint32 name = add(some.texts, others(m_all.places.size() - most));
    const uint32 function = add(some.functions, function_entry{name, 0, 0, false});
    rest.node = add(some.nodes, node_entry{0, add(some.frames, frame_entry{function, 0})});
    some.places.push_back(rest);
    return compacted(some);
}

// Entries that no place needs are left out.
page_data::tables page_data::compacted(const tables& all) {
    renumbering nodes(all.nodes.size()), frames(all.frames.size());
    renumbering functions(all.functions.size()), texts(all.texts.size());
    for (const place_entry& each : all.places) {
        texts.use(each.type);
        for (uint32 node = each.node; !nodes.is_used(node); node = all.nodes[node].parent) {
            nodes.use(node);
            frames.use(all.nodes[node].frame);
            const uint32 function = all.frames[all.nodes[node].frame].function;
            functions.use(function);
            texts.use(all.functions[function].name);
            texts.use(all.functions[function].module);
            texts.use(all.functions[function].file);
        }
    }
    for (renumbering* each : {&nodes, &frames, &functions, &texts})
        each->number();
    tables some{texts.kept(all.texts), functions.kept(all.functions), frames.kept(all.frames), nodes.kept(all.nodes),
                all.places};
    for (function_entry& each : some.functions)
        each = {texts[each.name], texts[each.module], texts[each.file], each.is_library_code};
    for (frame_entry& each : some.frames)
        each.function = functions[each.function];
    for (node_entry& each : some.nodes)
        each = {nodes[each.parent], frames[each.frame]};
    for (place_entry& each : some.places) {
        each.node = nodes[each.node];
        each.type = texts[each.type];
    }
    return some;
}

void page_data::append_head(std::string& data, const tables& of, const std::function<void(json_writer&)>& more) const {
    json_writer head;
    head.begin('{').key("texts").begin('[');
    for (const std::string& each : of.texts)
        head.text(each);
    head.end(']').key("sizes").begin('{');
    head.key("functions").number(of.functions.size()).key("frames").number(of.frames.size());
    head.key("nodes").number(of.nodes.size()).key("places").number(of.places.size());
    const bool has_types =
        std::any_of(of.places.begin(), of.places.end(), [](const place_entry& each) { return each.type != 0; });
    head.key("types").number(has_types ? 1 : 0).end('}').key("runs").begin('[');
    for (const named_profile* run : m_runs) {
        const auto& timeline = run->profile().timeline;
        const profile::sums& sums = run->profile().totals;
        head.begin('{').key("moments").number(timeline.size()).key("hasTimes").flag(run->profile().has_times);
        head.key("sums").begin('[');
        for (const profile::counts& each : {sums.live, sums.peak.live, sums.allocated, sums.temporary})
            head.begin('[').number(each.bytes).number(each.blocks).end(']');
        const auto peak = std::max_element(timeline.begin(), timeline.end(),
                                           [](const auto& a, const auto& b) { return a.live.bytes < b.live.bytes; });
        head.end(']').key("peakMoment");
        head.raw(timeline.empty() ? "-1" : std::to_string(peak - timeline.begin())).end('}');
    }
    head.end(']');
    more(head);
    const std::string text = head.end('}').take();
    append_number(data, text.size());
    data += text;
}

void page_data::append_columns(std::string& data, const tables& of) const {
    append_column(data, of.functions, [](const function_entry& each) { return each.name; });
    append_column(data, of.functions, [](const function_entry& each) { return each.module; });
    append_column(data, of.functions, [](const function_entry& each) { return each.file; });
    append_column(data, of.functions, [](const function_entry& each) { return each.is_library_code; });
    append_column(data, of.frames, [](const frame_entry& each) { return each.function; });
    append_column(data, of.frames, [](const frame_entry& each) { return each.line; });
    append_column(data, of.nodes,
                  [&of](const node_entry& each) { return &each - of.nodes.data() - std::ptrdiff_t{each.parent}; });
    append_column(data, of.nodes, [](const node_entry& each) { return each.frame; });
    append_column(data, of.places, [](const place_entry& each) { return each.node; });
    append_column(data, of.places, [](const place_entry& each) { return each.type; });
    append_column(data, of.places, [](const place_entry& each) { return each.is_growing; });
    for (std::size_t run = 0; run < m_runs.size(); ++run) {
        for (std::size_t what = 0; what < std::size(measures); ++what) {
            append_column(data, of.places, [=](const place_entry& each) { return each.counts[run][what].bytes; });
            append_column(data, of.places, [=](const place_entry& each) { return each.counts[run][what].blocks; });
        }
    }
    for (const named_profile* run : m_runs) {
        const profile& recorded = run->profile();
        uint64 before = 0;
        append_column(data, recorded.timeline, [&](const profile::moment& each) {
            const uint64 now = std::max(before, recorded.has_times ? each.time_ns : each.records);
            return now - std::exchange(before, now);
        });
        append_column(data, recorded.timeline, [](const profile::moment& each) { return each.live.bytes; });
        append_column(data, recorded.timeline, [](const profile::moment& each) { return each.live.blocks; });
    }
}

std::string page_data::pack(std::size_t most, const std::function<std::string(std::size_t)>& others,
                            const std::function<void(json_writer&)>& more) const {
    const tables chosen = selected(most, others);
    std::string data = "QHP1";
    append_head(data, chosen, more);
    append_columns(data, chosen);
    return data;
}

} // namespace qor::heap_tool
