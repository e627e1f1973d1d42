// Inside the library: what CPUID says, in words.
#pragma once

#include "system/cpuid.h"

#include <string>

namespace qor::system {

struct processor {
    std::string type;     // the trade name
    std::string extended; // maker, family, model, stepping, vector extensions
};

// Both empty where there is no CPUID.
processor read_processor(const cpuid& source);

// What the processor says of a hypervisor under this system.
struct hypervisor {
    bool is_there = false;
    bool is_ours = false; // this system directs it, and itself runs on the bare machine as far as it can tell
    std::string name;     // empty: an unknown one
};
hypervisor read_hypervisor(const cpuid& source);

} // namespace qor::system
