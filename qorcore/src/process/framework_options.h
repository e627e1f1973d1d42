// Inside the library: the options that every program of the framework has.
#pragma once

#include "qor/qor.h"

#include <vector>

namespace qor::process {

// Removes the framework's options from `args`, adds the options from the environment and applies them all. On false,
// the last error names the wrong option and the reason.
bool apply_framework_options(qorStringArray& args);

struct option_help {
    uint32 syntax;
    uint32 description;
};

// One entry an option, in the order of the help text.
std::vector<option_help> option_helps();

} // namespace qor::process
