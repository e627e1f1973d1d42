// Inside the serial ports on Linux: the traditional lock files, by which modem programs exclude each other.
#pragma once

#include "serial/sysfs.h"

namespace qor::serial {

enum class lock { none, somebody, process };

// Whether a process holds a lock file of this port. `file` is the path of that lock file; `holder` is the process id,
// or 0 if it is unknown. The lock file of a process that no longer exists locks nothing. A lock "file" that cannot be
// read, such as a folder or a pipe, counts as held: some scripts lock by making a folder.
lock find_lock(const host& on, const std::string& kernel_name, dev_t number, int& holder, std::string& file);

} // namespace qor::serial
