// Inside the library: memory that must be there.
#pragma once

#include "qor/qor.h"

#include <cerrno>
#include <new>
#include <utility>

namespace qor::memory {

// Ends the process as qorEndOutOfMemory does, and says that `size` bytes are not to be had, and who wants them. For
// operations that have no way to fail.
[[noreturn]] void exhausted(uint64 size, const char* file, int line) noexcept;

// What the C library has found, null where it is not there. Where it had no memory to look for it, the process ends.
template <class TYPE>
TYPE* found(TYPE* result) noexcept {
    if (result == nullptr && errno == ENOMEM) [[unlikely]]
        qorEndOutOfMemory();
    return result;
}

// Makes an object for a caller, who holds the new reference. False: there is no memory for it, *out is as it was, and
// the last error says so.
template <class OBJECT, class INTERFACE, class... ARGUMENTS>
bool make(const char* file, int line, INTERFACE** out, ARGUMENTS&&... arguments) noexcept {
    try {
        *out = new (file, line) OBJECT(std::forward<ARGUMENTS>(arguments)...);
        return true;
    } catch (const std::bad_alloc&) {
        qorSetLastError(qorError_out_of_memory);
        return false;
    }
}

// A tracked block that can always be used.
inline void* require(uint64 size, const char* file, int line) noexcept {
    void* const block = qor::glue::qor_do_malloc(0, size, true, file, line);
    if (block == nullptr) [[unlikely]]
        exhausted(size, file, line);
    return block;
}

} // namespace qor::memory
