// Inside the serial ports on Linux: the lock files by which programs for modems have always kept each other out.
#pragma once

#include "serial/sysfs.h"

namespace qor::serial {

enum class lock { none, somebody, process };

// Whether a process holds one of the lock files of this port: `file`, and `holder` is its number where that can be
// told. The file of a process that is gone locks nothing. What cannot be read, be it a folder or a pipe, is there all
// the same: some scripts lock by making a folder.
lock find_lock(const host& on, const std::string& kernel_name, dev_t number, int& holder, std::string& file);

} // namespace qor::serial
