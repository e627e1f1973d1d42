#include "summary_texts.h"

#include "file_system.h"
#include "messages.h"

#include <algorithm>
#include <string_view>

namespace qor::record {

namespace {

// The number of lines in the framework's log; -1 if the file is missing or empty.
long lines_of_memcheck(const std::string& path) {
    raw_file file;
    if (file.open(path) != 0)
        return -1;
    long count = 0;
    bool is_begin = true;
    char piece[64U << 10];
    for (std::size_t size; (size = file.read(piece, sizeof piece)) != 0;)
        for (const char c : std::string_view(piece, size)) {
            count += is_begin && (c == 'A' || c == 'F' || c == 'T') ? 1 : 0;
            is_begin = c == '\n';
        }
    return count > 0 ? count : -1;
}

} // namespace

std::string list_of(const std::vector<std::int32_t>& processes) {
    constexpr std::size_t most = 10;
    std::string list;
    for (std::size_t i = 0; i < std::min(processes.size(), most); ++i)
        (list += i != 0 ? ", " : "") += std::to_string(processes[i]);
    return processes.size() > most ? list + ", ..." : list;
}

void say_losses(const process_log& log, const std::string& shown) {
    if (log.lost() != 0)
        say(message::lost_records, {shown, std::to_string(log.lost())});
    if (log.has_given_up())
        say(message::stopped_reading, {shown});
}

std::string say_memchecks(const log_names& names, bool was_ended, const std::string& exit_code) {
    std::string first;
    if (const long count = lines_of_memcheck(names.memcheck()); count >= 0) {
        first = names.shown(names.memcheck());
        say(message::memcheck_recorded, {first, std::to_string(count)});
        if (was_ended)
            say(message::memcheck_cut_off, {first, exit_code});
    }
    for (const std::string& each : names.memchecks_of_children())
        if (const long count = lines_of_memcheck(each); count >= 0)
            say(message::memcheck_recorded, {names.shown(each), std::to_string(count)});
    return first;
}

} // namespace qor::record
