// Inside the library: reads a small file that the library looks for by itself, in one operation.
#pragma once

#include <cstddef>
#include <string>

namespace qor::platform {

// Appends the content of a file to `content`, without waiting. Returns false if it is not a file on a disk, if it
// cannot be read to its end, or if `content` would become larger than `max_size`.
bool read_whole(const char* path, std::size_t max_size, std::string& content);

} // namespace qor::platform
