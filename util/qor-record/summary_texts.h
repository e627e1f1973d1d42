// Parts of the recorder's last lines that are the same on all systems.
#pragma once

#include "log_names.h"
#include "process_log.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qor::record {

// "12, 13, 14"; of many the first ones.
std::string list_of(const std::vector<std::int32_t>& processes);

// Says which records are missing in the log of a process; `shown` is its name.
void say_losses(const process_log& log, const std::string& shown);

// Says what the framework's own logs contain, and, if something ended the program, that its log is cut off. Returns the
// name of the first process's log; empty without one.
std::string say_memchecks(const log_names& names, bool was_ended, const std::string& exit_code);

} // namespace qor::record
