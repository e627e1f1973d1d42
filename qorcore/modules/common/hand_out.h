// Inside the modules: converts new objects for the module's table.
#pragma once

#include "qor/qor.h"

namespace qor::modules {

// Calls `make` for its interface and returns the object in the untyped form of the table. On false, the last error
// gives the reason.
template <class INTERFACE, class MAKER>
bool hand_out(MAKER make, void** out) noexcept {
    INTERFACE* object = nullptr;
    if (!make(&object))
        return false;
    *out = object;
    return true;
}

} // namespace qor::modules
