// Inside the modules: new objects on their way through the module's table.
#pragma once

#include "qor/qor.h"

namespace qor::modules {

// What a maker of one interface makes, as the table speaks of it. False: the last error says why.
template <class INTERFACE, class MAKER>
bool hand_out(MAKER make, void** out) noexcept {
    INTERFACE* object = nullptr;
    if (!make(&object))
        return false;
    *out = object;
    return true;
}

} // namespace qor::modules
