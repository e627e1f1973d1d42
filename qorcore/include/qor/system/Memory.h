// The tracked allocator. Every block records the source file and line that requested it. A process started with
// --qor-memcheck=FILE writes all of them to an allocation log, which `qortool memcheck` replays.
//
// Calls without `file` and `line` record their own location: qor_do_malloc(0, 100) on line 7 of "demo/main.cpp" is
// recorded as "demo/main" 7. The path is the one that the compiler was given; -fmacro-prefix-map=/home/me/demo=demo
// shortens it. The other calls take a path without its extension and keep the pointer: pass a string literal.
//
// Blocks may be allocated and freed on any thread.
#pragma once

#include "qor/glue/binding.h"

#include <cstdint>
#include <cstdlib>
#include <new>
#include <source_location>
#include <string_view>

namespace qor::glue {

// Returns the block, or throws std::bad_alloc if it is null.
template <class POINTER>
POINTER or_throw(POINTER block) {
    if (block == nullptr) [[unlikely]]
        throw std::bad_alloc();
    return block;
}

// Returns the path of a source file without its extension, as the allocation log shows it. There is one copy of each
// path; it is never freed, because the log may need it at any time. If memory runs out, returns the path with its
// extension.
inline const char* path_without_extension(const char* path) noexcept {
    struct entry {
        const char* path;
        const char* cut;
        entry* next;
    };
    // The compiler gives all calls in a file the same pointer, so the list of a bucket holds only a few files.
    static constinit std::atomic<entry*> s_buckets[256]{};
    std::atomic<entry*>& bucket = s_buckets[(reinterpret_cast<std::uintptr_t>(path) >> 3) % 256];
    entry* first = bucket.load(std::memory_order_acquire);
    for (const entry* known = first; known != nullptr; known = known->next)
        if (known->path == path)
            return known->cut;

    const std::string_view text = path;
    const std::size_t name = text.find_last_of("/\\") + 1; // 0 where there is no folder
    const std::size_t dot = text.substr(name).rfind('.');
    const std::size_t length = dot == text.npos || dot == 0 ? text.size() : name + dot;
    void* const memory = std::malloc(sizeof(entry) + length + 1);
    if (memory == nullptr)
        return path;
    char* const cut = static_cast<char*>(memory) + sizeof(entry);
    std::memcpy(cut, path, length);
    cut[length] = '\0';
    // Two threads that race here both add an entry, which does no harm.
    entry* const made = new (memory) entry{path, cut, first};
    while (!bucket.compare_exchange_weak(made->next, made, std::memory_order_acq_rel, std::memory_order_acquire)) {
    }
    return cut;
}

// Converts the line to the type that the table takes.
inline int line_of(const std::source_location& where) noexcept { return static_cast<int>(where.line()); }

} // namespace qor::glue

// Ends the process because memory has run out: flushes standard output, prints "out of memory" on standard error, and
// exits with code 1. Nothing else runs and nothing is destroyed, so any thread may call it, whatever locks it holds.
[[noreturn]] inline void qorEndOutOfMemory() noexcept {
    qor::glue::qorEndOutOfMemory();
    std::_Exit(1); // tells the compiler, which cannot see behind the table, that this does not return
}

namespace qor {

// Runs `work` where std::bad_alloc must not escape, for instance at the entry of a thread or in an operation called by
// third-party code. If memory runs out, ends the process, after the objects of `work` have been destroyed.
template <class WORK>
auto or_end(WORK work) noexcept -> decltype(work()) {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        qorEndOutOfMemory();
    }
}

} // namespace qor

// Allocates `size` bytes, uninitialised, at a multiple of `alignment` (a power of two; 0 means suitable for any type).
// A size of 0 yields a unique block. If there is no memory, throws std::bad_alloc if `must_succeed`, else returns null.
// The caller owns the block and frees it with qor_do_free.
[[nodiscard]] inline void* qor_do_malloc(uint64 alignment, uint64 size, bool must_succeed, const char* file, int line) {
    void* const block = qor::glue::qor_do_malloc(alignment, size, must_succeed, file, line);
    return must_succeed ? qor::glue::or_throw(block) : block;
}
[[nodiscard]] inline void* qor_do_malloc(uint64 alignment, uint64 size, bool must_succeed = true,
                                         std::source_location where = std::source_location::current()) {
    return qor_do_malloc(alignment, size, must_succeed, qor::glue::path_without_extension(where.file_name()),
                         qor::glue::line_of(where));
}

// Changes the size of a block and keeps its bytes; a null `block` allocates. The result replaces `block` and may lie
// elsewhere. It is aligned for any type; a larger alignment is not kept. Throws std::bad_alloc if there is no memory;
// the old block stays valid.
[[nodiscard]] inline void* qor_do_realloc(void* block, uint64 size, const char* file, int line) {
    return qor::glue::or_throw(qor::glue::qor_do_realloc(block, size, file, line));
}
[[nodiscard]] inline void* qor_do_realloc(void* block, uint64 size,
                                          std::source_location where = std::source_location::current()) {
    return qor_do_realloc(block, size, qor::glue::path_without_extension(where.file_name()), qor::glue::line_of(where));
}

// Frees a block from any operation in this file except the huge ones. Null is allowed.
inline void qor_do_free(void* block, const char* file, int line) noexcept { qor::glue::qor_do_free(block, file, line); }
inline void qor_do_free(void* block, std::source_location where = std::source_location::current()) noexcept {
    qor_do_free(block, qor::glue::path_without_extension(where.file_name()), qor::glue::line_of(where));
}

// Copies `size` bytes. The caller frees the copy with qor_do_free. Throws std::bad_alloc, like the two below.
[[nodiscard]] inline void* qor_do_memdup(const void* bytes, uint64 size, const char* file, int line) {
    return qor::glue::or_throw(qor::glue::qor_do_memdup(bytes, size, file, line));
}
[[nodiscard]] inline void* qor_do_memdup(const void* bytes, uint64 size,
                                         std::source_location where = std::source_location::current()) {
    return qor_do_memdup(bytes, size, qor::glue::path_without_extension(where.file_name()), qor::glue::line_of(where));
}

// Copies a text with its terminator. The caller frees the copy with qor_do_free.
[[nodiscard]] inline char* qor_do_strdup(const char* text, const char* file, int line) {
    return qor::glue::or_throw(qor::glue::qor_do_strdup(text, file, line));
}
[[nodiscard]] inline char* qor_do_strdup(const char* text,
                                         std::source_location where = std::source_location::current()) {
    return qor_do_strdup(text, qor::glue::path_without_extension(where.file_name()), qor::glue::line_of(where));
}

// Copies a text up to its terminator, but at most `length` bytes, and terminates the copy. The caller frees it with
// qor_do_free.
[[nodiscard]] inline char* qor_do_strndup(const char* text, uint64 length, const char* file, int line) {
    return qor::glue::or_throw(qor::glue::qor_do_strndup(text, length, file, line));
}
[[nodiscard]] inline char* qor_do_strndup(const char* text, uint64 length,
                                          std::source_location where = std::source_location::current()) {
    return qor_do_strndup(text, length, qor::glue::path_without_extension(where.file_name()),
                          qor::glue::line_of(where));
}

// Maps `size` bytes of zeroed pages directly from the system, for blocks of many megabytes that must not fragment the
// heap. Throws std::bad_alloc. The caller frees them with qor_do_huge_free.
[[nodiscard]] inline void* qor_do_huge_alloc(uint64 size, const char* file, int line) {
    return qor::glue::or_throw(qor::glue::qor_do_huge_alloc(size, file, line));
}
[[nodiscard]] inline void* qor_do_huge_alloc(uint64 size,
                                             std::source_location where = std::source_location::current()) {
    return qor_do_huge_alloc(size, qor::glue::path_without_extension(where.file_name()), qor::glue::line_of(where));
}

// Frees a block of qor_do_huge_alloc. Null is allowed.
inline void qor_do_huge_free(void* block, const char* file, int line) noexcept {
    qor::glue::qor_do_huge_free(block, file, line);
}
inline void qor_do_huge_free(void* block, std::source_location where = std::source_location::current()) noexcept {
    qor_do_huge_free(block, qor::glue::path_without_extension(where.file_name()), qor::glue::line_of(where));
}
