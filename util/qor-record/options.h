// The command line.
#pragma once

#include "output_file.h"

#include "qor/system/Types.h"

#include <span>
#include <string>
#include <vector>

namespace qor::record {

struct options {
    std::string prefix;
    unsigned depth = 64;
    bool follows_children = true;
    bool replaces_anything = false;
    bool is_stopped = false;
    bool wants_system_heap = false; // on Windows
    compression::format kind = compression::format::none;
    std::vector<std::string> command; // the program and its arguments
};

struct option_row {
    const char* name;
    bool has_value;
    bool (*handler)(options& chosen, const std::string& value); // false after a message
    uint32 syntax;
    uint32 description;
};

// Those that only this system has.
std::span<const option_row> options_of_system();

inline constexpr int no_exit_code = -1;

// `no_exit_code`, or the exit code of a run that is over: after the help, or after a message on what is wrong.
int read_options(int argc, char** argv, options& chosen);

} // namespace qor::record
