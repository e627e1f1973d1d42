// Inside the module qor-openssl: no exception leaves it.
#pragma once

#include "qor/qor.h"

#include <new>

namespace qor::crypto {

// The result of `work`, which says whether it was done; where there is no memory for it, that is the last error.
template <class WORK>
bool guarded(WORK work) noexcept {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        qorSetLastError(qorError_out_of_memory);
        return false;
    }
}

} // namespace qor::crypto
