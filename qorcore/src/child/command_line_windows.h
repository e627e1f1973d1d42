// Inside the Windows half of child processes: a command line for the programs of Windows, which take it apart
// themselves.
#pragma once

#include <string>
#include <string_view>

namespace qor::child {

// Adds an argument to a command line, so that CommandLineToArgvW and the run-time libraries get it back as it is. The
// first one is the program's name, for which backslashes never mean anything but themselves: it cannot have a quote.
void add_argument(std::wstring& line, std::wstring_view argument);

// Whether Windows would give a file to its command interpreter, or whether it is that interpreter.
bool is_for_interpreter(std::wstring_view path);

} // namespace qor::child
