// Inside the library: the options that every program of the framework has.
#pragma once

#include "qor/qor.h"

#include <vector>

namespace qor::process {

// Takes the framework's options out of `args`, adds those that the environment gives and carries them out.
// False: the last error says which option was wrong and why.
bool apply_framework_options(qorStringArray& args);

struct option_help {
    uint32 syntax;
    uint32 description;
};

// One entry an option, in the order of the help text.
std::vector<option_help> option_helps();

} // namespace qor::process
