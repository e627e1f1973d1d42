// Writes the whole profile of recordings as JSON, for the comparison with a plain implementation. It reads one
// recording from each line of standard input, tab-separated: the mtrace log, the file of stacks and the allocation log,
// each of which may be empty; the record at which to stop, if any; 1 to leave out inherited blocks.
#include "heap/profile/profile_builder.h"

#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

using qor::heap::profile;

// Bytes of a log need not be text.
std::string hex(std::string_view text) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string all = "\"";
    for (const char each : text) {
        all += digits[static_cast<unsigned char>(each) >> 4];
        all += digits[static_cast<unsigned char>(each) & 15];
    }
    return all + '"';
}

std::string pair(const profile::counts& of) {
    return "[" + std::to_string(of.bytes) + "," + std::to_string(of.blocks) + "]";
}

std::string point(const profile::moment& of) {
    return "[" + std::to_string(of.time_ns) + "," + std::to_string(of.records) + "," + std::to_string(of.live.bytes) +
           "," + std::to_string(of.live.blocks) + "]";
}

template <class ALL, class WRITE>
std::string list(const ALL& all, WRITE write) {
    std::string text;
    for (const auto& each : all)
        text += (text.empty() ? "[" : ",") + write(each);
    return text.empty() ? "[]" : text + "]";
}

std::string frames(const profile& in, uint32 node) {
    std::string text = "[";
    for (; node != 0; node = in.nodes[node].parent) {
        const profile::frame& frame = in.frames[in.nodes[node].frame];
        const profile::module& module = in.modules[frame.module];
        text += (text.size() > 1 ? ",[" : "[") + hex(module.path) + "," + hex(module.build_id) + "," +
                std::to_string(frame.address) + "]";
    }
    return text + "]";
}

std::string json(const profile& of) {
    const auto place = [&of](const profile::place& each) {
        return "{\"frames\":" + frames(of, each.node) + ",\"caller\":" + hex(of.texts[each.caller]) +
               ",\"type_name\":" + hex(of.texts[each.type_name]) + ",\"file\":" + hex(of.texts[each.file]) +
               ",\"line\":" + std::to_string(each.line) + ",\"type\":" + std::to_string(each.type) +
               ",\"growth\":" + std::to_string(static_cast<int>(each.growth)) + ",\"live\":" + pair(each.live) +
               ",\"at_peak\":" + pair(each.at_peak) + ",\"allocated\":" + pair(each.allocated) +
               ",\"temporary\":" + pair(each.temporary) + "}";
    };
    const auto bad_free = [&of](const profile::bad_free& each) {
        return "[" + hex(of.texts[each.caller]) + "," + std::to_string(each.address) + "," +
               std::to_string(each.records) + "]";
    };
    const profile::sums& sums = of.totals;
    return "{\"places\":" + list(of.places, place) + ",\"timeline\":" + list(of.timeline, point) +
           ",\"bad_frees\":" + list(of.bad_frees, bad_free) + ",\"live\":" + pair(sums.live) +
           ",\"allocated\":" + pair(sums.allocated) + ",\"temporary\":" + pair(sums.temporary) +
           ",\"inherited\":" + pair(sums.inherited) + ",\"peak\":" + point(sums.peak) +
           ",\"records\":" + std::to_string(sums.records) + ",\"bad_free_count\":" + std::to_string(sums.bad_frees) +
           ",\"lost\":" + std::to_string(sums.lost_records) + ",\"is_partial\":" + (of.is_partial ? "true" : "false") +
           "}";
}

bool dump(const std::string& line) {
    std::istringstream words(line);
    std::vector<std::string> fields;
    for (std::string each; std::getline(words, each, '\t');)
        fields.push_back(each);
    fields.resize(5);
    qor::heap::profile_builder builder;
    if (!fields[3].empty())
        builder.set_last_record(std::stoull(fields[3]));
    if (fields[4] == "1")
        builder.leave_out_inherited();
    if ((!fields[0].empty() && !builder.open_mtrace(fields[0])) ||
        (!fields[1].empty() && !builder.open_stacks(fields[1])) ||
        (!fields[2].empty() && !builder.open_memcheck(fields[2])))
        return false;
    builder.run();
    std::puts(json(builder.make_profile()).c_str());
    return true;
}

} // namespace

int main() {
    for (std::string line; std::getline(std::cin, line);)
        if (!dump(line)) {
            std::fprintf(stderr, "cannot open the logs of [%s]\n", line.c_str());
            return 1;
        }
    return 0;
}
