// Inside tracing: writes lines to standard error or to a file.
#pragma once

#include <string_view>

namespace qor::debug {

// Writes one line. Any thread.
void write_line(const char* name, std::string_view text) noexcept;

// From now on appends lines to a file. Returns 0, or the system's error code.
int attach_file(const char* path) noexcept;

// Switches back to standard error. Everything traced so far is in the file.
void detach_file() noexcept;

} // namespace qor::debug
