// What the last lines of a recorder on every system are made of.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qor::record {

// "12, 13, 14"; of many the first ones.
std::string list_of(const std::vector<std::int32_t>& processes);

// The number of lines in the framework's log; -1: the file is missing or empty.
long lines_of_memcheck(const std::string& path);

} // namespace qor::record
