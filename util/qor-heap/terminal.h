// The kinds of the standard streams.
#pragma once

namespace qor::heap_tool {

bool error_is_terminal() noexcept;
bool output_is_terminal() noexcept;

// In lines; 0: standard output is no terminal, or does not say.
unsigned output_height() noexcept;

// A path by which standard input can be opened.
const char* standard_input() noexcept;

} // namespace qor::heap_tool
