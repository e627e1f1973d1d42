// Inside the modules: no exception leaves them.
#pragma once

#include "qor/qor.h"

#include <new>
#include <string>
#include <system_error>
#include <utility>

namespace qor::modules {

// The result of `work`, which says whether it succeeded. False and qorError_out_of_memory where there is no memory for
// it.
template <class WORK>
bool guarded(WORK work) noexcept {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        qorSetLastError(qorError_out_of_memory);
        return false;
    }
}

// The same for work that may throw std::system_error. Then `fail` gets its text, sets the last error and returns false.
template <class WORK, class FAIL>
bool guarded(WORK work, FAIL fail) noexcept {
    return guarded([&] {
        try {
            return work();
        } catch (const std::system_error& failed) {
            return fail(failed.code().message());
        }
    });
}

// Makes an object for a caller, who holds the new reference. False: there is no memory for it, *out is as it was.
template <class OBJECT, class INTERFACE, class... ARGUMENTS>
bool make(const char* file, int line, INTERFACE** out, ARGUMENTS&&... arguments) noexcept {
    return guarded([&] {
        *out = new (file, line) OBJECT(std::forward<ARGUMENTS>(arguments)...);
        return true;
    });
}

} // namespace qor::modules
