// Inside the library: the options that every program of the framework has.
#pragma once

#include "qor/qor.h"

namespace qor::process {

// Takes the framework's options out of `args`, adds those that the environment gives and carries them out.
// False: the last error says which option was wrong and why.
bool apply_framework_options(qorStringArray& args);

struct option_help {
    uint32 syntax;
    uint32 description;
};

inline constexpr uint32 option_count = 6;
extern const option_help option_helps[option_count];

} // namespace qor::process
