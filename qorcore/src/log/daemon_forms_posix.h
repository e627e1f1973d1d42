// Inside the log: the forms in which the daemons take entries.
#pragma once

#include "log/system_log.h"

#include <ctime>
#include <string>

namespace qor::log {

// An entry in the native protocol of the journal: a line NAME=VALUE for each field, or, if the value has line breaks,
// NAME, its length in 8 bytes, the least significant first, and the value.
std::string journal_form(const system_entry& entry);

// An entry for syslog, with at most `most` bytes; its text is cut if necessary. `when` is its time, in local time:
//
//   <11>Nov  5 09:05:07 program[123]: text
std::string syslog_form(const system_entry& entry, const std::tm& when, std::size_t most);

} // namespace qor::log
