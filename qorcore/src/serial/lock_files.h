// Inside the serial ports on Linux: the lock files by which programs for modems have always kept each other out.
#pragma once

#include "serial/sysfs.h"

namespace qor::serial {

enum class lock { none, somebody, process };

// Whether a process holds one of the lock files of this port; *holder is its number where that can be told. The file of
// a process that is gone locks nothing.
lock find_lock(const host& on, const std::string& kernel_name, dev_t number, int& holder);

} // namespace qor::serial
