// Reads what the user names: logs, alone or of a whole process tree, with what lies beside them, into one profile; and
// finds the functions of its places.
#pragma once

#include "export/named_profile.h"
#include "heap/profile/profile.h"
#include "heap/profile/profile_builder.h"
#include "options.h"
#include "progress.h"

#include <string>
#include <vector>

namespace qor::heap_tool {

// The logs of one process.
struct process_logs {
    std::string log; // an mtrace log, or an allocation log alone; "-" is standard input
    std::string stacks = {};
    std::string memcheck = {}; // joined with the log
    bool leaves_out_inherited = false;
};

// Sorts files into the logs of processes. Returns an exit code after a message.
int sort_logs(const std::vector<std::string>& files, std::vector<process_logs>& sorted);

// Opens the logs. Returns false after a message.
bool open_logs(const process_logs& logs, heap::profile_builder& builder);

// The places that a command shows: all of them, or those that have any of the chosen measure.
enum class wanted_places : uint8 { all, measured };

// Reads the logs of all processes and adds them up. Returns `no_exit_code`, or an exit code after a message. Ctrl-C
// ends the reading; the profile is then partial.
int read_recording(const std::vector<std::string>& files, const options& chosen, wanted_places wanted,
                   heap::profile& out);

// The places with blocks of a measure.
heap::places_with blocks_of(measure what) noexcept;

// The names in a profile; without the wish for symbols, addresses alone. Only wanted places get names.
named_profile name_places(const heap::profile& of, const options& chosen, wanted_places wanted);

} // namespace qor::heap_tool
