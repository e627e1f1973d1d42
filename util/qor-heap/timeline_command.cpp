// timeline: live bytes and blocks over the run, and who holds the peak.
#include "commands.h"
#include "interrupt.h"
#include "message_names.h"
#include "recording.h"
#include "table.h"
#include "text.h"

#include <algorithm>

namespace qor::heap_tool {

namespace message = qor::messages::heap;

namespace {

using moment = heap::profile::moment;

constexpr std::size_t most_rows = 40;
constexpr uint64 bar_width = 40;

// All, or the highest moment of each of as many parts as there are rows, and the end.
std::vector<moment> shown_moments(const heap::profile& of) {
    const std::vector<moment>& all = of.timeline;
    if (all.size() <= most_rows)
        return all;
    std::vector<moment> shown;
    const uint64 first = all.front().records, last = all.back().records;
    std::size_t at = 0;
    for (uint64 row = 1; row <= most_rows && at < all.size(); ++row) {
        const uint64 end = first + (last - first) * row / most_rows;
        const moment* highest = nullptr;
        for (; at < all.size() && all[at].records <= end; ++at)
            if (highest == nullptr || all[at].live.bytes > highest->live.bytes)
                highest = &all[at];
        if (highest != nullptr)
            shown.push_back(*highest);
    }
    if (shown.empty() || shown.back().records != last)
        shown.push_back(all.back());
    return shown;
}

void show_course(output_text& out, const heap::profile& of) {
    std::vector<std::vector<std::string>> rows(1);
    if (of.has_times)
        rows[0].push_back(text_of(message::time_head));
    for (const uint32 head : {message::records_head, message::bytes_head, message::blocks_head})
        rows[0].push_back(text_of(head));
    rows[0].emplace_back();
    const uint64 peak =
        std::ranges::max(of.timeline, {}, [](const moment& each) { return each.live.bytes; }).live.bytes;
    bool is_marked = false;
    for (const moment& each : shown_moments(of)) {
        std::vector<std::string>& row = rows.emplace_back();
        if (of.has_times)
            row.push_back(seconds(each.time_ns));
        row.push_back(std::to_string(each.records));
        row.push_back(std::to_string(each.live.bytes));
        row.push_back(std::to_string(each.live.blocks));
        const double share = peak == 0 ? 0 : static_cast<double>(each.live.bytes) / static_cast<double>(peak);
        row.emplace_back(static_cast<std::size_t>(share * bar_width), '#');
        if (each.live.bytes == peak && peak != 0 && !is_marked) {
            row.back() += ' ' + text_of(message::peak_mark);
            is_marked = true;
        }
    }
    write_numbers(out, rows, true);
}

void show_peak(output_text& out, const named_profile& in, const options& chosen) {
    std::vector<const heap::profile::place*> holders;
    for (const heap::profile::place& each : in.profile().places)
        if (each.at_peak.blocks != 0)
            holders.push_back(&each);
    std::ranges::stable_sort(holders, std::greater{}, [](const auto* each) { return each->at_peak.bytes; });
    const uint64 all = in.profile().totals.peak.live.bytes;
    constexpr std::size_t most = 10;
    const std::size_t wanted = chosen.rows == 0 ? holders.size() : std::min<std::size_t>(chosen.rows, most);
    std::vector<table_row> rows;
    for (std::size_t i = 0; i < std::min(wanted, holders.size()); ++i)
        rows.push_back({holders[i],
                        {std::to_string(holders[i]->at_peak.bytes), percent(holders[i]->at_peak.bytes, all),
                         std::to_string(holders[i]->at_peak.blocks)}});
    out << "\n"
        << text_of(message::peak_title, {std::to_string(all), std::to_string(in.profile().totals.peak.live.blocks),
                                         std::to_string(holders.size())})
        << "\n\n";
    write_table(out, in,
                {text_of(message::bytes_head), text_of(message::share_head), text_of(message::blocks_head),
                 text_of(message::place_head)},
                rows, chosen.frames);
    if (rows.size() < holders.size())
        out << text_of(message::more_rows, {std::to_string(holders.size() - rows.size())}) << "\n";
}

} // namespace

int run_timeline(const options& chosen) {
    heap::profile of;
    options peak = chosen;
    peak.what = measure::at_peak;
    if (const int code = read_recording(chosen.logs, peak, wanted_places::measured, of); code != no_exit_code)
        return code;
    const named_profile named = name_places(of, peak, wanted_places::measured);
    output_text out;
    if (of.timeline.empty())
        out << text_of(message::no_timeline) << "\n";
    else
        show_course(out, of);
    if (of.totals.peak.live.blocks != 0)
        show_peak(out, named, chosen);
    out.write_out();
    return is_interrupted() ? exit_interrupted : 0;
}

} // namespace qor::heap_tool
