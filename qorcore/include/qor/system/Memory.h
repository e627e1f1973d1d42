// The tracked allocator: every block carries the source file and line that asked for it, and a process started
// with --qor-memcheck=FILE writes each of them into an allocation log that `qortool memcheck` replays.
//
// The calls without `file` and `line` note the place that they stand in: qor_do_malloc(0, 100) on line 7 of
// "demo/main.cpp" is a block of "demo/main" 7. The path is the one that the compiler was given;
// -fmacro-prefix-map=/home/me/demo=demo makes it short. The others take a path without its extension, which is kept by
// pointer: pass a string literal.
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

// The block, or std::bad_alloc where there is none.
template <class POINTER>
POINTER or_throw(POINTER block) {
    if (block == nullptr) [[unlikely]]
        throw std::bad_alloc();
    return block;
}

// The path of a source file without its extension, as the allocation log has it. There is one copy of each path, which
// is never freed, because the log may name it at any time. Where memory runs out the extension stays.
inline const char* path_without_extension(const char* path) noexcept {
    struct entry {
        const char* path;
        const char* cut;
        entry* next;
    };
    // The compiler gives all calls of a file the same pointer, so the list of a bucket holds a few files at most.
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
    // Two threads that are here at once keep two copies, which does no harm.
    entry* const made = new (memory) entry{path, cut, first};
    while (!bucket.compare_exchange_weak(made->next, made, std::memory_order_acq_rel, std::memory_order_acquire)) {
    }
    return cut;
}

// The line as the table takes it.
inline int line_of(const std::source_location& where) noexcept { return static_cast<int>(where.line()); }

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
// `must_succeed`, otherwise returns null. The caller owns the block and frees it with qor_do_free.
[[nodiscard]] inline void* qor_do_malloc(uint64 alignment, uint64 size, bool must_succeed, const char* file, int line) {
    void* const block = qor::glue::qor_do_malloc(alignment, size, must_succeed, file, line);
    return must_succeed ? qor::glue::or_throw(block) : block;
}
[[nodiscard]] inline void* qor_do_malloc(uint64 alignment, uint64 size, bool must_succeed = true,
                                         std::source_location where = std::source_location::current()) {
    return qor_do_malloc(alignment, size, must_succeed, qor::glue::path_without_extension(where.file_name()),
                         qor::glue::line_of(where));
}

// Changes a block's size and keeps its bytes; null allocates. The result, which takes the place of `block`, may lie
// elsewhere and is aligned for any type, no more. Throws std::bad_alloc where there is no memory; the old block then
// stands.
[[nodiscard]] inline void* qor_do_realloc(void* block, uint64 size, const char* file, int line) {
    return qor::glue::or_throw(qor::glue::qor_do_realloc(block, size, file, line));
}
[[nodiscard]] inline void* qor_do_realloc(void* block, uint64 size,
                                          std::source_location where = std::source_location::current()) {
    return qor_do_realloc(block, size, qor::glue::path_without_extension(where.file_name()), qor::glue::line_of(where));
}

// Frees a block of any of the operations here but the huge ones. Null is allowed.
inline void qor_do_free(void* block, const char* file, int line) noexcept { qor::glue::qor_do_free(block, file, line); }
inline void qor_do_free(void* block, std::source_location where = std::source_location::current()) noexcept {
    qor_do_free(block, qor::glue::path_without_extension(where.file_name()), qor::glue::line_of(where));
}

// A copy of `size` bytes, which the caller frees with qor_do_free. Throws std::bad_alloc, as the two below do.
[[nodiscard]] inline void* qor_do_memdup(const void* bytes, uint64 size, const char* file, int line) {
    return qor::glue::or_throw(qor::glue::qor_do_memdup(bytes, size, file, line));
}
[[nodiscard]] inline void* qor_do_memdup(const void* bytes, uint64 size,
                                         std::source_location where = std::source_location::current()) {
    return qor_do_memdup(bytes, size, qor::glue::path_without_extension(where.file_name()), qor::glue::line_of(where));
}

// A copy of the text with its terminator, which the caller frees with qor_do_free.
[[nodiscard]] inline char* qor_do_strdup(const char* text, const char* file, int line) {
    return qor::glue::or_throw(qor::glue::qor_do_strdup(text, file, line));
}
[[nodiscard]] inline char* qor_do_strdup(const char* text,
                                         std::source_location where = std::source_location::current()) {
    return qor_do_strdup(text, qor::glue::path_without_extension(where.file_name()), qor::glue::line_of(where));
}

// Copies up to the terminator, `length` bytes at most; the copy is terminated, and freed with qor_do_free.
[[nodiscard]] inline char* qor_do_strndup(const char* text, uint64 length, const char* file, int line) {
    return qor::glue::or_throw(qor::glue::qor_do_strndup(text, length, file, line));
}
[[nodiscard]] inline char* qor_do_strndup(const char* text, uint64 length,
                                          std::source_location where = std::source_location::current()) {
    return qor_do_strndup(text, length, qor::glue::path_without_extension(where.file_name()),
                          qor::glue::line_of(where));
}

// Maps `size` bytes of zeroed pages directly from the system: for blocks of many megabytes that must not
// fragment the heap. Throws std::bad_alloc. The caller gives them back with qor_do_huge_free.
[[nodiscard]] inline void* qor_do_huge_alloc(uint64 size, const char* file, int line) {
    return qor::glue::or_throw(qor::glue::qor_do_huge_alloc(size, file, line));
}
[[nodiscard]] inline void* qor_do_huge_alloc(uint64 size,
                                             std::source_location where = std::source_location::current()) {
    return qor_do_huge_alloc(size, qor::glue::path_without_extension(where.file_name()), qor::glue::line_of(where));
}

// Gives back a block of qor_do_huge_alloc. Null is allowed.
inline void qor_do_huge_free(void* block, const char* file, int line) noexcept {
    qor::glue::qor_do_huge_free(block, file, line);
}
inline void qor_do_huge_free(void* block, std::source_location where = std::source_location::current()) noexcept {
    qor_do_huge_free(block, qor::glue::path_without_extension(where.file_name()), qor::glue::line_of(where));
}
