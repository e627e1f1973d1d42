// Inside the library: the data of CPUID as text.
#pragma once

#include "system/cpuid.h"

#include <string>

namespace qor::system {

struct processor {
    std::string type;     // the trade name
    std::string extended; // maker, family, model, stepping, vector extensions
};

// Both texts are empty without CPUID.
processor read_processor(const cpuid& source);

// The processor's data about a hypervisor under this system.
struct hypervisor {
    bool is_there = false;
    bool is_ours = false; // this system controls the hypervisor and, as far as it can tell, runs on the real machine
    std::string name;     // empty if unknown
};
hypervisor read_hypervisor(const cpuid& source);

} // namespace qor::system
