// Inside the library: small files that it looks for by itself, read in one go.
#pragma once

#include <cstddef>
#include <string>

namespace qor::platform {

// Adds what the file holds to `content`, without waiting. False: it is no file on a disk, cannot be read to its end, or
// `content` would be larger than `max_size`.
bool read_whole(const char* path, std::size_t max_size, std::string& content);

} // namespace qor::platform
