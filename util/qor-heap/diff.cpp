// diff: two recordings by place. A place is its functions, not its addresses, so that a rebuilt program compares with
// the one before.
#include "commands.h"
#include "export/safe_text.h"
#include "interrupt.h"
#include "message_names.h"
#include "recording.h"
#include "table.h"
#include "text.h"

#include <algorithm>
#include <map>
#include <ranges>
#include <string>
#include <tuple>

namespace qor::heap_tool {

namespace message = qor::messages::heap;

namespace {

using place = heap::profile::place;
using counts = heap::profile::counts;

// Gives equal texts and equal stacks of both profiles one number.
class common_numbers {
public:
    uint32 text(const std::string& text) {
        return m_texts.try_emplace(text, static_cast<uint32>(m_texts.size())).first->second;
    }
    uint32 stack(uint32 callers, uint32 function, uint32 object) {
        return m_stacks.try_emplace({callers, function, object}, static_cast<uint32>(m_stacks.size() + 1))
            .first->second;
    }

private:
    std::map<std::string, uint32> m_texts;
    std::map<std::tuple<uint32, uint32, uint32>, uint32> m_stacks;
};

// The stack's number, the type's name, the source file and line that the program gave, and the block type.
using place_key = std::tuple<uint32, uint32, uint32, int32, uint8>;

// The places of one profile by their keys.
class keyed_places {
public:
    keyed_places(const named_profile& in, common_numbers& numbers) : m_in(in), m_numbers(numbers) {
        const heap::profile& of = in.profile();
        m_nodes.resize(of.nodes.size());
        for (std::size_t i = 1; i < of.nodes.size(); ++i) {
            uint32 number = m_nodes[of.nodes[i].parent];
            const auto functions = in.functions(of.nodes[i].frame);
            for (const auto& each : std::views::reverse(functions))
                number = numbers.stack(number, text(each.name), text_of_object(each.module));
            m_nodes[i] = number;
        }
    }

    place_key key_of(const place& of) {
        uint32 stack = m_nodes[of.node];
        if (of.node == 0 && of.caller != 0)
            stack = m_numbers.stack(0, text(m_in.caller(of)), 0);
        return {stack, text(m_in.type_name(of)), text(m_in.file(of)), of.line, of.type};
    }

private:
    uint32 text(uint32 number) { return m_numbers.text(m_in.text(number)); }
    uint32 text_of_object(uint32 number) { return m_numbers.text(std::string(file_name(m_in.text(number)))); }

    const named_profile& m_in;
    common_numbers& m_numbers;
    std::vector<uint32> m_nodes;
};

struct difference {
    const place* old_place = nullptr;
    const place* new_place = nullptr;
    counts before;
    counts now;

    bool is_equal() const noexcept { return before == now; }
    uint64 size() const noexcept {
        return before.bytes > now.bytes ? before.bytes - now.bytes : now.bytes - before.bytes;
    }
};

std::string change_of(uint64 before, uint64 now) {
    return before > now ? '-' + std::to_string(before - now) : '+' + std::to_string(now - before);
}

using difference_map = std::map<place_key, difference>;

void add_places(difference_map& to, const named_profile& in, common_numbers& numbers, measure what, bool is_new) {
    keyed_places keyed(in, numbers);
    for (const place& each : in.profile().places) {
        const counts& found = counts_of(each, what);
        if (found.blocks == 0)
            continue;
        difference& at = to[keyed.key_of(each)];
        (is_new ? at.now : at.before) += found;
        (is_new ? at.new_place : at.old_place) = &each;
    }
}

// One of the three kinds: of places that both have, that are new, and that are gone.
void show_group(output_text& out, uint32 title, const named_profile& in, const options& chosen,
                std::vector<const difference*> group, bool is_gone) {
    std::ranges::stable_sort(group, [](const difference* a, const difference* b) { return a->size() > b->size(); });
    uint64 before = 0, now = 0;
    for (const difference* each : group) {
        before += each->before.bytes;
        now += each->now.bytes;
    }
    out << "\n" << text_of(title, {change_of(before, now), std::to_string(group.size())}) << "\n";
    if (group.empty())
        return;
    std::vector<table_row> rows;
    const std::size_t shown = chosen.rows == 0 ? group.size() : std::min<std::size_t>(group.size(), chosen.rows);
    for (std::size_t i = 0; i < shown; ++i) {
        const difference& each = *group[i];
        rows.push_back({is_gone ? each.old_place : each.new_place,
                        {change_of(each.before.bytes, each.now.bytes), std::to_string(each.now.bytes),
                         change_of(each.before.blocks, each.now.blocks), std::to_string(each.now.blocks)}});
    }
    write_table(out, in,
                {text_of(message::bytes_change_head), text_of(message::bytes_head),
                 text_of(message::blocks_change_head), text_of(message::blocks_head), text_of(message::place_head)},
                rows, chosen.frames);
    if (shown < group.size())
        out << text_of(message::more_rows, {std::to_string(group.size() - shown)}) << "\n";
}

} // namespace

int run_diff(const options& chosen) {
    heap::profile old_profile, new_profile;
    if (const int code = read_recording({chosen.logs[0]}, chosen, wanted_places::measured, old_profile);
        code != no_exit_code)
        return code;
    if (const int code = read_recording({chosen.logs[1]}, chosen, wanted_places::measured, new_profile);
        code != no_exit_code)
        return code;
    const named_profile old_names = name_places(old_profile, chosen, wanted_places::measured);
    const named_profile new_names = name_places(new_profile, chosen, wanted_places::measured);
    common_numbers numbers;
    difference_map all;
    add_places(all, old_names, numbers, chosen.what, false);
    add_places(all, new_names, numbers, chosen.what, true);
    std::vector<const difference*> grown, shrunk, added, gone;
    counts before, now;
    for (const auto& [key, each] : all) {
        before += each.before;
        now += each.now;
        if (each.old_place == nullptr)
            added.push_back(&each);
        else if (each.new_place == nullptr)
            gone.push_back(&each);
        else if (!each.is_equal())
            (each.now.bytes >= each.before.bytes ? grown : shrunk).push_back(&each);
    }
    output_text out;
    out << text_of(message::diff_summary, {std::to_string(before.bytes), std::to_string(now.bytes),
                                           change_of(before.bytes, now.bytes), change_of(before.blocks, now.blocks)})
        << "\n";
    show_group(out, message::grown_title, new_names, chosen, grown, false);
    show_group(out, message::new_title, new_names, chosen, added, false);
    show_group(out, message::shrunk_title, new_names, chosen, shrunk, false);
    show_group(out, message::gone_title, old_names, chosen, gone, true);
    out.write_out();
    return is_interrupted() ? exit_interrupted : 0;
}

} // namespace qor::heap_tool
