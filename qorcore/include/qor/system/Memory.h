// The tracked allocator: every block carries the source file and line that asked for it, and a process started
// with --qor-memcheck=FILE writes each of them into an allocation log that `qortool memcheck` replays.
//
// Blocks may be allocated and freed on any thread. File names are kept by pointer: pass string literals.
#pragma once

#include "qor/glue/binding.h"

#include <cstdlib>
#include <new>

namespace qor::glue {

template <class POINTER>
POINTER or_throw(POINTER block) {
    if (block == nullptr) [[unlikely]]
        throw std::bad_alloc();
    return block;
}

} // namespace qor::glue

// For who cannot go on without memory: writes out what standard output holds, says "out of memory" on standard error,
// and ends the process with exit code 1. Nothing else is run or destroyed, so any thread may call it, whatever it
// holds.
[[noreturn]] inline void qorEndOutOfMemory() noexcept {
    qor::glue::qorEndOutOfMemory();
    std::_Exit(1); // for the compiler, which does not know the operation behind the table
}

namespace qor {

// Does `work` where no std::bad_alloc may leave: the entry of a thread, an operation that is called by somebody else's
// code. What `work` holds is destroyed before the process ends.
template <class WORK>
auto or_end(WORK work) noexcept -> decltype(work()) {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        qorEndOutOfMemory();
    }
}

} // namespace qor

// Returns `size` bytes, not cleared, at a multiple of `alignment` (a power of two; 0 asks for no more than any
// type needs). A size of 0 yields a block of its own. Where there is no memory: throws std::bad_alloc if
// `must_succeed`, otherwise returns null.
inline void* qor_do_malloc(uint64 alignment, uint64 size, bool must_succeed, const char* file, int line) {
    void* const block = qor::glue::qor_do_malloc(alignment, size, must_succeed, file, line);
    return must_succeed ? qor::glue::or_throw(block) : block;
}

// Changes a block's size and keeps its bytes; null allocates. The result may lie elsewhere and is aligned for
// any type, no more. Throws std::bad_alloc where there is no memory; the old block then stands.
inline void* qor_do_realloc(void* block, uint64 size, const char* file, int line) {
    return qor::glue::or_throw(qor::glue::qor_do_realloc(block, size, file, line));
}

// Frees a block of any of the operations here but the huge ones. Null is allowed.
inline void qor_do_free(void* block, const char* file, int line) noexcept { qor::glue::qor_do_free(block, file, line); }

inline void* qor_do_memdup(const void* bytes, uint64 size, const char* file, int line) {
    return qor::glue::or_throw(qor::glue::qor_do_memdup(bytes, size, file, line));
}

inline char* qor_do_strdup(const char* text, const char* file, int line) {
    return qor::glue::or_throw(qor::glue::qor_do_strdup(text, file, line));
}

// Copies up to the terminator, `length` bytes at most; the copy is terminated.
inline char* qor_do_strndup(const char* text, uint64 length, const char* file, int line) {
    return qor::glue::or_throw(qor::glue::qor_do_strndup(text, length, file, line));
}

// Maps `size` bytes of zeroed pages directly from the system: for blocks of many megabytes that must not
// fragment the heap. Throws std::bad_alloc.
inline void* qor_do_huge_alloc(uint64 size, const char* file, int line) {
    return qor::glue::or_throw(qor::glue::qor_do_huge_alloc(size, file, line));
}

// Gives back a block of qor_do_huge_alloc. Null is allowed.
inline void qor_do_huge_free(void* block, const char* file, int line) noexcept {
    qor::glue::qor_do_huge_free(block, file, line);
}
