// sites: places with the most bytes.
#include "commands.h"
#include "heap/log/file_bytes.h"
#include "interrupt.h"
#include "message_names.h"
#include "recording.h"
#include "suppressions.h"
#include "table.h"
#include "text.h"

#include <algorithm>

namespace qor::heap_tool {

namespace message = qor::messages::heap;

namespace {

using place = heap::profile::place;
using counts = heap::profile::counts;

// Returns false after a message.
bool load_suppressions(const options& chosen, suppressions& to) {
    if (chosen.has_built_in_suppressions)
        to.add(built_in_suppressions);
    if (chosen.suppressions.empty())
        return true;
    heap::file_bytes file;
    if (!file.open(chosen.suppressions.c_str())) {
        fputerr(stderr, true);
        return false;
    }
    constexpr std::size_t longest = std::size_t{1} << 20;
    std::string text(longest, '\0');
    std::size_t size = 0;
    while (const std::size_t count = file.read(text.data() + size, text.size() - size))
        size += count;
    const std::size_t bad_line = to.add(std::string_view(text).substr(0, size));
    if (size == longest || bad_line != 0)
        say(message::bad_suppression, {chosen.suppressions, std::to_string(bad_line)});
    return size != longest && bad_line == 0;
}

uint32 title_of(measure what) {
    switch (what) {
    case measure::live:
        return message::live_title;
    case measure::at_peak:
        return message::peak_title;
    case measure::allocated:
        return message::allocated_title;
    case measure::temporary:
        break;
    }
    return message::temporary_title;
}

uint32 mark_of(heap::profile::growth growth) {
    switch (growth) {
    case heap::profile::growth::once:
        return message::allocated_once;
    case heap::profile::growth::growing:
        return message::growing;
    case heap::profile::growth::none:
        break;
    }
    return message::up_and_down;
}

bool is_larger(const counts& a, const counts& b) {
    return a.bytes != b.bytes ? a.bytes > b.bytes : a.blocks > b.blocks;
}

void show_summary(output_text& out, const heap::profile& of) {
    const heap::profile::sums& sums = of.totals;
    out << text_of(message::summary, {std::to_string(sums.records), std::to_string(sums.allocated.blocks),
                                      std::to_string(sums.allocated.bytes), std::to_string(sums.temporary.blocks)})
        << "\n";
    const std::string peak = std::to_string(sums.peak.live.bytes), blocks = std::to_string(sums.peak.live.blocks);
    if (sums.peak.records == 0)
        out << text_of(message::peak_of_several, {peak, blocks});
    else if (of.has_times)
        out << text_of(message::peak_in_time,
                       {peak, blocks, std::to_string(sums.peak.records), seconds(sums.peak.time_ns)});
    else
        out << text_of(message::peak, {peak, blocks, std::to_string(sums.peak.records)});
    out << "\n";
    if (sums.inherited.blocks != 0)
        out << text_of(message::inherited_blocks,
                       {std::to_string(sums.inherited.bytes), std::to_string(sums.inherited.blocks)})
            << "\n";
}

void show_bad_frees(output_text& out, const named_profile& in) {
    const heap::profile& of = in.profile();
    if (of.totals.bad_frees == 0)
        return;
    out << "\n" << text_of(message::bad_frees, {std::to_string(of.totals.bad_frees)}) << "\n";
    constexpr std::size_t most = 10;
    for (std::size_t i = 0; i < std::min(most, of.bad_frees.size()); ++i) {
        const heap::profile::bad_free& each = of.bad_frees[i];
        char address[24];
        std::snprintf(address, sizeof address, "0x%llx", static_cast<unsigned long long>(each.address));
        place from;
        from.caller = each.caller;
        const std::string& caller = in.text(in.caller(from));
        out << text_of(message::bad_free, {address, std::to_string(each.records), caller.empty() ? "-" : caller})
            << "\n";
    }
}

class site_list {
public:
    site_list(const named_profile& in, const options& chosen) : m_in(in), m_chosen(chosen) {}

    // Only what is live at the end can be a leak, so only that is suppressed.
    void fill(const suppressions& left_out) {
        for (const place& each : m_in.profile().places) {
            const counts& found = counts_of(each, m_chosen.what);
            if (found.blocks == 0)
                continue;
            if (m_chosen.what == measure::live && left_out.matches(m_in, each)) {
                m_suppressed += found;
                ++m_suppressed_places;
                continue;
            }
            if (m_chosen.only_growing && each.growth != heap::profile::growth::growing)
                continue;
            m_all += found;
            m_rows.push_back(&each);
        }
        std::ranges::stable_sort(m_rows, [&](const place* a, const place* b) {
            return is_larger(counts_of(*a, m_chosen.what), counts_of(*b, m_chosen.what));
        });
    }

    void show(output_text& out) const {
        out << "\n"
            << text_of(title_of(m_chosen.what),
                       {std::to_string(m_all.bytes), std::to_string(m_all.blocks), std::to_string(m_rows.size())})
            << "\n";
        if (m_chosen.only_growing)
            out << text_of(message::only_growing) << "\n";
        if (m_suppressed_places != 0)
            out << text_of(message::suppressed,
                           {std::to_string(m_suppressed.bytes), std::to_string(m_suppressed.blocks),
                            std::to_string(m_suppressed_places)})
                << "\n";
        if (m_rows.empty())
            return;
        out << "\n";
        const bool has_growth = m_chosen.what == measure::live && m_in.profile().totals.records > 1;
        std::vector<std::string> head = {text_of(message::bytes_head), text_of(message::share_head),
                                         text_of(message::blocks_head)};
        if (has_growth)
            head.push_back(text_of(message::growth_head));
        head.push_back(text_of(message::place_head));
        std::vector<table_row> rows;
        counts rest = m_all;
        const std::size_t shown =
            m_chosen.rows == 0 ? m_rows.size() : std::min<std::size_t>(m_rows.size(), m_chosen.rows);
        for (std::size_t i = 0; i < shown; ++i) {
            const counts& found = counts_of(*m_rows[i], m_chosen.what);
            rows.push_back(
                {m_rows[i],
                 {std::to_string(found.bytes), percent(found.bytes, m_all.bytes), std::to_string(found.blocks)}});
            if (has_growth)
                rows.back().cells.push_back(text_of(mark_of(m_rows[i]->growth)));
            rest.bytes -= found.bytes;
            rest.blocks -= found.blocks;
        }
        write_table(out, m_in, head, rows, m_chosen.frames);
        if (shown < m_rows.size())
            out << text_of(message::more_places, {std::to_string(m_rows.size() - shown), std::to_string(rest.bytes),
                                                  std::to_string(rest.blocks)})
                << "\n";
    }

    const counts& all() const noexcept { return m_all; }

private:
    const named_profile& m_in;
    const options& m_chosen;
    std::vector<const place*> m_rows;
    counts m_all;
    counts m_suppressed;
    uint64 m_suppressed_places = 0;
};

} // namespace

int run_sites(const options& chosen) {
    suppressions left_out;
    if (!load_suppressions(chosen, left_out))
        return exit_failure;
    heap::profile of;
    if (const int code = read_recording(chosen.logs, chosen, wanted_places::measured, of); code != no_exit_code)
        return code;
    const named_profile named = name_places(of, chosen, wanted_places::measured);
    site_list sites(named, chosen);
    sites.fill(left_out);
    {
        output_text out;
        show_summary(out, of);
        show_bad_frees(out, named);
        sites.show(out);
    }
    if (of.is_partial && is_interrupted())
        return exit_interrupted;
    if (chosen.fails_on_bad_free && of.totals.bad_frees != 0)
        return exit_bad_frees;
    return chosen.has_limit && sites.all().bytes > chosen.limit ? exit_over_limit : 0;
}

} // namespace qor::heap_tool
