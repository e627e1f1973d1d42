// Names of functions as a person writes them.
#pragma once

#include <string>

namespace qor::heap {

// A name of C++ (Itanium ABI) with its parameters; any other name as it is.
std::string demangled(const char* name);

} // namespace qor::heap
