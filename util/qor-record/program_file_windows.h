// The file of the program to be recorded, looked at before it runs.
#pragma once

#include "shared/arena.h"

#include <string>
#include <vector>

namespace qor::record {

// As the system finds it, with ".exe" behind a name without an extension. Empty: there is no such file.
std::string find_program(const std::string& name);

// False, after a message: this program cannot be recorded. Files of other kinds are accepted, because the system
// decides what they are.
bool look_at_program(const std::string& path);

// Where operators new begin that are in the file itself, as far as its symbols tell.
std::vector<code_range> allocation_code_of(const std::string& path);

// The command line that a program takes apart into these words.
std::string command_line(const std::vector<std::string>& words);

} // namespace qor::record
