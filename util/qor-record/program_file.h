// The file of the program to be recorded, looked at before it runs.
#pragma once

#include "shared/arena.h"

#include <string>
#include <vector>

namespace qor::record {

// As the shell finds it: along PATH if there is no '/' in the name. Empty: no such file can be executed.
std::string find_program(const std::string& name);

struct program_facts {
    bool has_own_malloc = false;             // nothing can stand before it
    std::vector<code_range> allocation_code; // operators new that are in the file itself
};

// False, after a message: this program cannot be recorded. The interpreter of a script counts instead of the script.
// Files of other kinds are accepted, because the system decides what they are.
bool look_at_program(const std::string& path, program_facts& found);

// The operators new in the file of the program that runs in a process.
std::vector<code_range> allocation_code_of(std::int32_t process);

} // namespace qor::record
