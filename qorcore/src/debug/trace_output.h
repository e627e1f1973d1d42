// Inside tracing: where lines go, standard error or a file.
//
// A file gets each line before the call returns, up to write_through_lines of them in each period of 10 ms.
// Those beyond that, more than a process can want to be seen at once, go into a memory that outlives the
// process, however that ends, and from there into the file together, at the latest when a period has passed.
// What a process that was killed had there lies in "<file>.<process>.rest" beside the trace file.
#pragma once

#include <string_view>

namespace qor::debug {

// One line. Any thread may call it.
void write_line(const char* name, std::string_view text) noexcept;

// Where lines go from now on: to the end of a file. 0, or the system's error code.
int attach_file(const char* path) noexcept;

// Back to standard error. What was traced until now is in the file.
void detach_file() noexcept;

} // namespace qor::debug
