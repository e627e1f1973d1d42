// Inside the library: memory that must be there.
#pragma once

#include "qor/qor.h"

namespace qor::memory {

// Says that `size` bytes are not to be had, and ends the process. For operations that have no way to fail.
[[noreturn]] void exhausted(uint64 size, const char* file, int line) noexcept;

// A tracked block that can always be used.
inline void* require(uint64 size, const char* file, int line) noexcept {
    void* const block = qor::glue::qor_do_malloc(0, size, true, file, line);
    if (block == nullptr) [[unlikely]]
        exhausted(size, file, line);
    return block;
}

} // namespace qor::memory
