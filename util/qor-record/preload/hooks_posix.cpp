// The allocation functions of C and POSIX, as the program finds them: each calls the next one of its name and records
// the result. A release is recorded before the block is released, an allocation after it was allocated, so that in
// the order of the records a block is never allocated twice.
#include "next.h"
#include "process.h"
#include "recording.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <dlfcn.h>
#include <gnu/libc-version.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace qor::record {

namespace {

#define QOR_NEXT(name, type)                                                                                           \
    constinit next_function<type> next_##name { #name }

QOR_NEXT(malloc, void*(std::size_t));
QOR_NEXT(calloc, void*(std::size_t, std::size_t));
QOR_NEXT(realloc, void*(void*, std::size_t));
QOR_NEXT(free, void(void*));
QOR_NEXT(memalign, void*(std::size_t, std::size_t));
QOR_NEXT(aligned_alloc, void*(std::size_t, std::size_t));
QOR_NEXT(posix_memalign, int(void**, std::size_t, std::size_t));
QOR_NEXT(valloc, void*(std::size_t));
QOR_NEXT(pvalloc, void*(std::size_t));
QOR_NEXT(malloc_usable_size, std::size_t(void*));
QOR_NEXT(free_sized, void(void*, std::size_t));
QOR_NEXT(free_aligned_sized, void(void*, std::size_t, std::size_t));
QOR_NEXT(strdup, char*(const char*));
QOR_NEXT(strndup, char*(const char*, std::size_t));
QOR_NEXT(wcsdup, wchar_t*(const wchar_t*));
QOR_NEXT(vasprintf, int(char**, const char*, va_list));
QOR_NEXT(__vasprintf_chk, int(char**, int, const char*, va_list));
QOR_NEXT(dlclose, int(void*));
QOR_NEXT(prctl, int(int, unsigned long, unsigned long, unsigned long, unsigned long));

// The loader may allocate while it searches for this thread. Only that thread uses the reserve, which is small.
__thread bool is_searching __attribute__((tls_model("initial-exec")));

template <class Function>
Function* find(next_function<Function>& next) noexcept {
    Function* found = next.function.load(std::memory_order_relaxed);
    if (found != nullptr) [[likely]]
        return found;
    const bool was_searching = is_searching;
    is_searching = true;
    found = reinterpret_cast<Function*>(find_next(next.name));
    is_searching = was_searching;
    next.function.store(found, std::memory_order_relaxed);
    return found;
}

// malloc comes last: until it is found, allocations come from the reserve.
[[gnu::noinline]] void find_the_first() noexcept {
    find(next_calloc);
    find(next_free);
    find(next_realloc);
    find(next_malloc);
}

[[gnu::always_inline]] inline bool uses_reserve() noexcept {
    if (next_malloc.function.load(std::memory_order_relaxed) != nullptr && !is_searching) [[likely]]
        return false;
    if (!is_searching)
        find_the_first();
    return is_searching;
}

// Calls the next function, and records its result if no other hook has. `block` and `size` tell of the result.
template <class Call, class Block, class Size>
[[gnu::always_inline]] inline auto observe(const machine_context& caller, Call call, Block block, Size size) noexcept {
    const unsigned long before = records_of_this_thread();
    const auto result = call();
    const void* const made = block(result);
    if (made != nullptr && !has_recorded(made, before))
        record_allocation(record_kind::allocation, made, size(made), caller);
    return result;
}

// The same for a function of the allocator.
template <class Function, class Call, class Block>
[[gnu::always_inline]] inline auto observe_allocator(next_function<Function>& next, const machine_context& caller,
                                                     Call call, Block block, std::size_t size) noexcept {
    if (belongs_to_outer_call(caller)) [[unlikely]]
        return call();
    const auto size_of = [=](const void*) { return size; };
    if (next.is_alone.load(std::memory_order_relaxed)) [[likely]]
        return observe(caller, call, block, size_of);
    Function* const function = next.function.load(std::memory_order_relaxed);
    return observe(
        caller,
        [=] {
            const call_scope scope(called_allocator, function);
            return call();
        },
        block, size_of);
}

template <class Function, class... Arguments>
[[gnu::always_inline]] inline void* allocate(next_function<Function>& next, const machine_context& caller,
                                             std::size_t size, Arguments... arguments) noexcept {
    Function* const function = find(next);
    if (function == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    return observe_allocator(
        next, caller, [=] { return function(arguments...); }, [](void* made) { return made; }, size);
}

// realloc and functions that are built on it. An allocator's own realloc may call malloc and free, which are hooked. If
// the stack does not show that realloc has called them, the addresses of the blocks do.
[[gnu::always_inline]] inline void* reallocate(void* block, std::size_t size, const machine_context& caller) noexcept {
    auto* const function = find(next_realloc);
    if (block == nullptr)
        return allocate(next_realloc, caller, size, nullptr, size);
    if (belongs_to_outer_call(caller)) [[unlikely]]
        return function(block, size);
    record_release(record_kind::moved_from, block, caller);
    const announced_release scope(block);
    const unsigned long before = records_of_this_thread();
    const auto move = [=] {
        const call_scope call(called_allocator, function);
        return function(block, size);
    };
    void* const moved = move();
    if (moved != nullptr && !has_recorded(moved, before))
        record_allocation(record_kind::moved_to, moved, size, caller);
    else if (moved == nullptr && size != 0)
        record_allocation(record_kind::not_moved, block, size, caller);
    return moved;
}

void* move_out_of_reserve(void* block, std::size_t size, const machine_context& caller) noexcept {
    void* const moved = allocate(next_malloc, caller, size, size);
    if (moved != nullptr) {
        const std::size_t before = size_in_reserve(block);
        memcpy(moved, block, before < size ? before : size);
    }
    return moved;
}

template <class Function, class... Arguments>
[[gnu::always_inline]] inline void release(next_function<Function>& next, void* block, const machine_context& caller,
                                           Arguments... arguments) noexcept {
    if (block == nullptr || is_from_reserve(block))
        return;
    if (announced == block) [[unlikely]]
        announced = nullptr;
    else if (!belongs_to_outer_call(caller)) [[likely]]
        record_release(record_kind::release, block, caller);
    Function* const function = find(next);
    if (next.is_alone.load(std::memory_order_relaxed) && sizeof...(arguments) == 0) [[likely]]
        return function(block, arguments...);
    const call_scope call(called_allocator, function);
    if constexpr (sizeof...(arguments) != 0) { // it may call free
        const announced_release scope(block);
        if (function != nullptr)
            function(block, arguments...);
        else
            find(next_free)(block);
    } else {
        function(block);
    }
}

// The result of a function that makes a text.
template <class Function, class... Arguments>
[[gnu::always_inline]] inline auto duplicate(next_function<Function>& next, const machine_context& caller,
                                             std::size_t (*size)(const void*), Arguments... arguments) noexcept {
    Function* const function = find(next);
    const call_scope scope(called_text_function, function);
    return observe(
        caller, [=] { return function(arguments...); }, [](const void* made) { return made; }, size);
}

std::size_t size_of_text(const void* text) noexcept { return strlen(static_cast<const char*>(text)) + 1; }
std::size_t size_of_wide_text(const void* text) noexcept {
    return (wcslen(static_cast<const wchar_t*>(text)) + 1) * sizeof(wchar_t);
}

template <class Function, class... Arguments>
[[gnu::always_inline]] inline int print(next_function<Function>& next, const machine_context& caller, char** text,
                                        Arguments... arguments) noexcept {
    Function* const function = find(next);
    const call_scope scope(called_text_function, function);
    return observe(
        caller, [=] { return function(text, arguments...); },
        [text](int length) { return length < 0 ? nullptr : *text; }, size_of_text);
}

template <class Function>
void add_next(next_function<Function>& next, const void* c_library) noexcept {
    if (Function* const function = find(next)) {
        const void* const library = add_allocation_function(reinterpret_cast<void*>(function));
        next.is_alone.store(library != nullptr && library == c_library, std::memory_order_relaxed);
    }
}

} // namespace

// If one of these calls another one, which is hooked, its frames are skipped in the stack of the block.
void find_allocator() noexcept {
    Dl_info c_library{};
    (void)dladdr(reinterpret_cast<void*>(&gnu_get_libc_version), &c_library);
    add_next(next_malloc, c_library.dli_fbase);
    add_next(next_calloc, c_library.dli_fbase);
    add_next(next_realloc, c_library.dli_fbase);
    add_next(next_memalign, c_library.dli_fbase);
    add_next(next_aligned_alloc, c_library.dli_fbase);
    add_next(next_posix_memalign, c_library.dli_fbase);
    add_next(next_valloc, c_library.dli_fbase);
    add_next(next_pvalloc, c_library.dli_fbase);
    add_next(next_free, c_library.dli_fbase);
}

} // namespace qor::record

using namespace qor::record;

#define QOR_HOOK extern "C" __attribute__((visibility("default")))

QOR_HOOK void* malloc(std::size_t size) {
    if (uses_reserve()) [[unlikely]]
        return allocate_from_reserve(size);
    return allocate(next_malloc, capture_context(), size, size);
}

QOR_HOOK void* calloc(std::size_t count, std::size_t size) {
    if (uses_reserve()) [[unlikely]]
        return allocate_from_reserve(count * size);
    return allocate(next_calloc, capture_context(), count * size, count, size);
}

QOR_HOOK void* realloc(void* block, std::size_t size) {
    if (uses_reserve()) [[unlikely]] {
        void* const moved = allocate_from_reserve(size);
        if (moved != nullptr && block != nullptr)
            memcpy(moved, block, size_in_reserve(block) < size ? size_in_reserve(block) : size);
        return moved;
    }
    if (is_from_reserve(block)) [[unlikely]]
        return move_out_of_reserve(block, size, capture_context());
    return reallocate(block, size, capture_context());
}

QOR_HOOK void* reallocarray(void* block, std::size_t count, std::size_t size) {
    std::size_t whole;
    if (__builtin_mul_overflow(count, size, &whole)) {
        errno = ENOMEM;
        return nullptr;
    }
    if (uses_reserve() || is_from_reserve(block)) [[unlikely]]
        return realloc(block, whole);
    return reallocate(block, whole, capture_context());
}

QOR_HOOK void free(void* block) {
    if (uses_reserve()) [[unlikely]]
        return;
    release(next_free, block, capture_context());
}

QOR_HOOK void cfree(void* block) {
    if (!uses_reserve())
        release(next_free, block, capture_context());
}

QOR_HOOK void free_sized(void* block, std::size_t size) {
    if (!uses_reserve())
        release(next_free_sized, block, capture_context(), size);
}

QOR_HOOK void free_aligned_sized(void* block, std::size_t alignment, std::size_t size) {
    if (!uses_reserve())
        release(next_free_aligned_sized, block, capture_context(), alignment, size);
}

QOR_HOOK void* memalign(std::size_t alignment, std::size_t size) {
    return allocate(next_memalign, capture_context(), size, alignment, size);
}

QOR_HOOK void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return allocate(next_aligned_alloc, capture_context(), size, alignment, size);
}

QOR_HOOK int posix_memalign(void** result, std::size_t alignment, std::size_t size) {
    auto* const function = find(next_posix_memalign);
    return observe_allocator(
        next_posix_memalign, capture_context(), [=] { return function(result, alignment, size); },
        [=](int reason) { return reason == 0 ? *result : nullptr; }, size);
}

QOR_HOOK void* valloc(std::size_t size) { return allocate(next_valloc, capture_context(), size, size); }

QOR_HOOK void* pvalloc(std::size_t size) { return allocate(next_pvalloc, capture_context(), size, size); }

QOR_HOOK std::size_t malloc_usable_size(void* block) {
    if (is_from_reserve(block))
        return size_in_reserve(block);
    auto* const function = find(next_malloc_usable_size);
    return function != nullptr ? function(block) : 0;
}

QOR_HOOK char* strdup(const char* text) { return duplicate(next_strdup, capture_context(), size_of_text, text); }

QOR_HOOK char* __strdup(const char* text) { return duplicate(next_strdup, capture_context(), size_of_text, text); }

QOR_HOOK char* strndup(const char* text, std::size_t size) {
    return duplicate(next_strndup, capture_context(), size_of_text, text, size);
}

QOR_HOOK char* __strndup(const char* text, std::size_t size) {
    return duplicate(next_strndup, capture_context(), size_of_text, text, size);
}

QOR_HOOK wchar_t* wcsdup(const wchar_t* text) {
    return duplicate(next_wcsdup, capture_context(), size_of_wide_text, text);
}

QOR_HOOK int vasprintf(char** result, const char* format, va_list arguments) {
    return print(next_vasprintf, capture_context(), result, format, arguments);
}

QOR_HOOK int asprintf(char** result, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = print(next_vasprintf, capture_context(), result, format, arguments);
    va_end(arguments);
    return length;
}

QOR_HOOK int __asprintf(char** result, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = print(next_vasprintf, capture_context(), result, format, arguments);
    va_end(arguments);
    return length;
}

QOR_HOOK int __vasprintf_chk(char** result, int flag, const char* format, va_list arguments) {
    return print(next___vasprintf_chk, capture_context(), result, flag, format, arguments);
}

QOR_HOOK int __asprintf_chk(char** result, int flag, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = print(next___vasprintf_chk, capture_context(), result, flag, format, arguments);
    va_end(arguments);
    return length;
}

// Another library may be loaded at the same address later.
QOR_HOOK int dlclose(void* library) {
    auto* const function = find(next_dlclose);
    modules_are_going();
    const int result = function(library);
    modules_have_gone();
    return result;
}

// From then on, recording makes no system calls that the filter may forbid.
QOR_HOOK int prctl(int operation, ...) {
    auto* const function = find(next_prctl);
    va_list list;
    va_start(list, operation);
    const auto a = va_arg(list, unsigned long);
    const auto b = va_arg(list, unsigned long);
    const auto c = va_arg(list, unsigned long);
    const auto d = va_arg(list, unsigned long);
    va_end(list);
    if (operation == PR_SET_SECCOMP)
        confine(a == SECCOMP_MODE_STRICT);
    return function(operation, a, b, c, d);
}

namespace {

// Before the libraries of the program: this library has the flag -z initfirst.
__attribute__((constructor)) void start(int, char**, char** environment) { start_recording(environment); }

} // namespace
