// Inside tracing: writes lines to standard error or to a file.
//
// A file gets each line before the call returns, up to write_through_lines in each period of 10 ms. Further lines, more
// than anybody could read as they appear, go into memory that survives the end of the process. From there they are
// written to the file together, at the latest when the period has passed. If the process is killed, its unwritten lines
// remain in "<file>.<process>.rest" beside the trace file.
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
