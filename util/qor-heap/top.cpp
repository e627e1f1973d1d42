// top: the table of a recording that is still being written, once a second.
#include "commands.h"
#include "heap/symbols/symbols.h"
#include "interrupt.h"
#include "message_names.h"
#include "recording.h"
#include "running.h"
#include "table.h"
#include "terminal.h"
#include "text.h"

#include <algorithm>
#include <chrono>
#include <map>

namespace qor::heap_tool {

namespace message = qor::messages::heap;

namespace {

using clock = std::chrono::steady_clock;
using place = heap::profile::place;

constexpr auto step = std::chrono::seconds(1);

// The recorder writes for a while after the program has ended.
constexpr auto last_patience = std::chrono::seconds(3);

// Functions that were found for an earlier table. Files with symbols are large, so each frame is looked up once.
class known_functions {
public:
    // The places of those frames of the profile that the rows need.
    named_profile::symbol_names names(const heap::profile& of, const std::vector<const place*>& rows) {
        std::vector<uint32> unknown;
        named_profile::symbol_names all(of.frames.size());
        for (const place* const row : rows)
            for (uint32 node = row->node; node != 0; node = of.nodes[node].parent) {
                const uint32 frame = of.nodes[node].frame;
                const auto known = m_known.find(key_of(of, frame));
                if (known != m_known.end())
                    all[frame] = known->second;
                else
                    unknown.push_back(frame);
            }
        if (unknown.empty())
            return all;
        std::ranges::sort(unknown);
        unknown.erase(std::ranges::unique(unknown).begin(), unknown.end());
        heap::profile part;
        part.modules = of.modules;
        part.processes = of.processes;
        for (const uint32 each : unknown)
            part.frames.push_back(of.frames[each]);
        const auto found = m_symbols.resolve(part, [](const heap::symbol_progress*) { return !is_interrupted(); });
        for (std::size_t i = 0; i < unknown.size(); ++i)
            all[unknown[i]] = m_known[key_of(of, unknown[i])] = found[i + 1];
        return all;
    }

private:
    using key = std::pair<std::string, uint64>;

    static key key_of(const heap::profile& of, uint32 frame) {
        const heap::profile::module& in = of.modules[of.frames[frame].module];
        return {in.path + '\0' + in.build_id, of.frames[frame].address};
    }

    heap::symbols m_symbols; // keeps the texts
    std::map<key, std::vector<heap::source_place>> m_known;
};

class screen {
public:
    screen(const options& chosen, heap::profile_builder& builder) : m_chosen(chosen), m_builder(builder) {}

    // Returns false when the last table has been shown.
    bool show_if_due() {
        const clock::time_point now = clock::now();
        if (now - m_shown < step)
            return true;
        m_shown = now;
        const uint64 records = m_builder.records();
        if (records == m_records && m_count != 0 && m_chosen.tables == 0)
            return true;
        m_rate = records - m_records;
        m_records = records;
        show();
        return m_chosen.tables == 0 || ++m_count < m_chosen.tables;
    }

    // Whether the recorded process has ended, and nothing more was written. Without the file of stacks, which names the
    // process, nothing tells.
    bool is_over() {
        const clock::time_point now = clock::now();
        if (m_builder.records() != m_read) {
            m_read = m_builder.records();
            m_last_read = now;
        }
        const uint64 pid = m_builder.stacks().of().pid;
        return pid != 0 && now - m_last_read > last_patience && !is_running(pid);
    }

    // The last table, unless it has been shown.
    void finish() {
        if (m_chosen.tables == 0 && (m_count == 0 || m_builder.records() != m_records)) {
            m_rate = m_builder.records() - m_records;
            show();
        }
    }

private:
    void show() {
        m_count += m_chosen.tables == 0;
        const heap::profile of = m_builder.make_profile(blocks_of(m_chosen.what));
        std::vector<const place*> rows;
        for (const place& each : of.places)
            if (counts_of(each, m_chosen.what).blocks != 0)
                rows.push_back(&each);
        std::ranges::stable_sort(rows, std::greater{},
                                 [this](const place* each) { return counts_of(*each, m_chosen.what).bytes; });
        const std::size_t all = rows.size();
        if (m_chosen.rows != 0 && rows.size() > m_chosen.rows)
            rows.resize(m_chosen.rows);
        named_profile::symbol_names names;
        if (m_chosen.wants_symbols)
            names = m_functions.names(of, rows);
        const named_profile named(of, names, m_chosen.is_anonymous);

        output_text out;
        if (output_is_terminal()) {
            std::fputs("\x1b[H\x1b[2J", stdout);
            std::fflush(stdout);
        }
        const heap::profile::sums& sums = of.totals;
        out << text_of(message::top_summary,
                       {std::to_string(sums.records), std::to_string(m_rate), readable_bytes(sums.live.bytes),
                        std::to_string(sums.live.blocks), readable_bytes(sums.peak.live.bytes)})
            << "\n\n";
        write_table(out, named,
                    {text_of(message::bytes_head), text_of(message::share_head), text_of(message::blocks_head),
                     text_of(message::place_head)},
                    table_rows(rows), frames());
        if (rows.size() < all)
            out << text_of(message::more_rows, {std::to_string(all - rows.size())}) << "\n";
        out << "\n";
        out.write_out();
        std::fflush(stdout);
    }

    std::vector<table_row> table_rows(const std::vector<const place*>& rows) const {
        std::vector<table_row> cells;
        heap::profile::counts sum;
        for (const place* const each : rows)
            sum += counts_of(*each, m_chosen.what);
        for (const place* const each : rows) {
            const auto& found = counts_of(*each, m_chosen.what);
            cells.push_back(
                {each, {std::to_string(found.bytes), percent(found.bytes, sum.bytes), std::to_string(found.blocks)}});
        }
        return cells;
    }

    // On a terminal a place has as many lines as leave room for some places.
    uint64 frames() const {
        const unsigned height = output_is_terminal() ? output_height() : 0;
        return height == 0 ? m_chosen.frames : std::clamp<uint64>(height / 8, 1, m_chosen.frames);
    }

    const options& m_chosen;
    heap::profile_builder& m_builder;
    known_functions m_functions;
    clock::time_point m_shown{};
    clock::time_point m_last_read = clock::now();
    uint64 m_read = 0;
    uint64 m_records = 0;
    uint64 m_rate = 0;
    uint64 m_count = 0;
};

} // namespace

int run_top(const options& chosen) {
    std::vector<process_logs> processes;
    if (const int code = sort_logs(chosen.logs, processes); code != no_exit_code)
        return code;
    std::optional<screen> shown;
    heap::profile_builder builder([&] { return shown->show_if_due() && !is_interrupted() && !shown->is_over(); });
    shown.emplace(chosen, builder);
    builder.follow();
    if (!open_logs(processes.front(), builder))
        return exit_failure;
    builder.run();
    if (!is_interrupted())
        shown->finish();
    return 0;
}

} // namespace qor::heap_tool
