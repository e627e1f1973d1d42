// Inside the library: allocations, and the handling of exhausted memory.
#pragma once

#include "qor/qor.h"

#include <cerrno>
#include <new>
#include <utility>

namespace qor::memory {

// Ends the process like qorEndOutOfMemory and reports the size and the place of the request. For operations that have
// no way to fail.
[[noreturn]] void exhausted(uint64 size, const char* file, int line) noexcept;

// Returns a result of the C library, which is null if it found nothing. Ends the process if it had no memory to search.
template <class TYPE>
TYPE* found(TYPE* result) noexcept {
    if (result == nullptr && errno == ENOMEM) [[unlikely]]
        qorEndOutOfMemory();
    return result;
}

// Creates an object and passes its first reference to the caller. Returns false if there is no memory; *out is then
// unchanged, and the last error is set.
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

// Returns a tracked block. Ends the process if there is no memory.
inline void* require(uint64 size, const char* file, int line) noexcept {
    void* const block = qor::glue::qor_do_malloc(0, size, true, file, line);
    if (block == nullptr) [[unlikely]]
        exhausted(size, file, line);
    return block;
}

} // namespace qor::memory
