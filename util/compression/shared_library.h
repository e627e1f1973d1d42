// The seam to the system's loader. A library that was loaded stays.
#pragma once

#include <string>

namespace qor::compression {

// The libraries' file names on this system.
extern const char* const zlib_file;
extern const char* const zstd_file;

// Null: `reason` says why, in the words of the system.
void* load_library(const char* file, std::string& reason);

// Null: the library has no such function.
void* find_function(void* library, const char* name) noexcept;

} // namespace qor::compression
