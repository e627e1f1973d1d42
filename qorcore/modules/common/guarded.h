// Inside the modules: keeps exceptions inside a module.
#pragma once

#include "qor/qor.h"

#include <new>
#include <string>
#include <system_error>
#include <utility>

namespace qor::modules {

// Returns the result of `work`, true for success. Returns false and sets qorError_out_of_memory if memory runs out.
template <class WORK>
bool guarded(WORK work) noexcept {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        qorSetLastError(qorError_out_of_memory);
        return false;
    }
}

// Like the above, for work that may also throw std::system_error. `fail` receives the text of the error, sets the last
// error and returns false.
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

// Makes an object for a caller, who owns the new reference. Returns false and leaves *out unchanged if memory runs out.
template <class OBJECT, class INTERFACE, class... ARGUMENTS>
bool make(const char* file, int line, INTERFACE** out, ARGUMENTS&&... arguments) noexcept {
    return guarded([&] {
        *out = new (file, line) OBJECT(std::forward<ARGUMENTS>(arguments)...);
        return true;
    });
}

} // namespace qor::modules
