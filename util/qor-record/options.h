// The command line.
#pragma once

#include "output_file.h"

#include <string>
#include <vector>

namespace qor::record {

struct options {
    std::string prefix;
    unsigned depth = 64;
    bool follows_children = true;
    bool replaces_anything = false;
    bool is_stopped = false;
    compression::format kind = compression::format::none;
    std::vector<std::string> command; // the program and its arguments
};

inline constexpr int no_exit_code = -1;

// `no_exit_code`, or the exit code of a run that is over: after the help, or after a message on what is wrong.
int read_options(int argc, char** argv, options& chosen);

} // namespace qor::record
