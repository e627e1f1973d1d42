// What is known of a file without opening it: a pipe can be read only once, and a named pipe of Windows counts even the
// question for its kind as its reader.
#pragma once

#include "qor/qor.h"

#include <optional>
#include <string>

namespace qor::heap_tool {

// The size of a regular file, in bytes. Nothing, if it is something else or cannot be asked for.
std::optional<uint64> size_of_regular_file(const std::string& path);

} // namespace qor::heap_tool
