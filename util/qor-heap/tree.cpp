// tree: the stacks as a tree of functions, from main down or from the allocating functions up.
#include "commands.h"
#include "interrupt.h"
#include "message_names.h"
#include "recording.h"
#include "table.h"
#include "text.h"

#include <algorithm>
#include <map>
#include <tuple>

namespace qor::heap_tool {

namespace message = qor::messages::heap;

namespace {

using counts = heap::profile::counts;

// Branches with less than this share of all are left out.
constexpr uint64 smallest_share = 100; // one part of so many

class function_tree {
public:
    function_tree(const named_profile& in, const options& chosen) : m_in(in), m_chosen(chosen), m_branches(1) {
        for (const heap::profile::place& each : in.profile().places) {
            const counts& found = counts_of(each, chosen.what);
            if (found.blocks == 0)
                continue;
            std::vector<named_profile::function> stack = in.stack(each);
            if (!chosen.is_bottom_up)
                std::ranges::reverse(stack);
            m_branches[0].sum += found;
            uint32 at = 0;
            for (const named_profile::function& function : stack) {
                at = child_of(at, function);
                m_branches[at].sum += found;
            }
        }
    }

    void show(output_text& out) {
        std::vector<uint32> order(m_branches.size());
        std::vector<std::vector<uint32>> children(m_branches.size());
        for (uint32 i = 1; i < m_branches.size(); ++i)
            children[m_branches[i].parent].push_back(i);
        const counts& all = m_branches[0].sum;
        const uint64 least = m_chosen.rows == 0 ? 0 : all.bytes / smallest_share;
        uint64 left_out = 0;
        std::vector<std::vector<std::string>> rows = {{text_of(message::bytes_head), text_of(message::share_head),
                                                       text_of(message::blocks_head), text_of(message::function_head)}};
        // A branch, and how far it is indented: a chain of single calls stays in one column.
        std::vector<std::pair<uint32, std::size_t>> open = {{0, 0}};
        while (!open.empty()) {
            const auto [number, indent] = open.back();
            open.pop_back();
            const branch& each = m_branches[number];
            if (number != 0)
                rows.push_back({std::to_string(each.sum.bytes), percent(each.sum.bytes, all.bytes),
                                std::to_string(each.sum.blocks),
                                std::string(2 * indent, ' ') + line_of(m_in, each.function)});
            std::vector<uint32>& next = children[number];
            std::ranges::stable_sort(next, std::less{}, [&](uint32 child) { return m_branches[child].sum.bytes; });
            const bool is_chain = number == 0 || (next.size() == 1 && m_branches[next[0]].sum == each.sum);
            for (const uint32 child : next) {
                if (m_branches[child].sum.bytes < least)
                    ++left_out;
                else
                    open.emplace_back(child, is_chain ? indent : indent + 1);
            }
        }
        write_numbers(out, rows, true);
        if (left_out != 0)
            out << text_of(message::small_branches, {std::to_string(left_out)}) << "\n";
    }

    const counts& all() const noexcept { return m_branches[0].sum; }

private:
    struct branch {
        uint32 parent = 0;
        named_profile::function function;
        counts sum;
    };

    // Calls of a function from different lines of its caller are one branch.
    uint32 child_of(uint32 parent, const named_profile::function& function) {
        const auto [found, is_new] =
            m_numbers.try_emplace({parent, function.name, function.module}, static_cast<uint32>(m_branches.size()));
        if (is_new)
            m_branches.push_back({parent, function, {}});
        else if (m_branches[found->second].function.line != function.line)
            m_branches[found->second].function.line = 0;
        return found->second;
    }

    const named_profile& m_in;
    const options& m_chosen;
    std::vector<branch> m_branches;
    std::map<std::tuple<uint32, uint32, uint32>, uint32> m_numbers;
};

} // namespace

int run_tree(const options& chosen) {
    heap::profile of;
    if (const int code = read_recording(chosen.logs, chosen, wanted_places::measured, of); code != no_exit_code)
        return code;
    const named_profile named = name_places(of, chosen, wanted_places::measured);
    function_tree tree(named, chosen);
    output_text out;
    tree.show(out);
    out.write_out();
    return is_interrupted() ? exit_interrupted : 0;
}

} // namespace qor::heap_tool
