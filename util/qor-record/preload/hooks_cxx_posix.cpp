// The operators new and delete of C++, in all forms. Those of the C++ library call malloc and free, which are hooked
// themselves; an allocator's own may not. An exception of a failed allocation passes through.
#include "next.h"
#include "process.h"
#include "recording.h"

#include <cstdlib>
#include <dlfcn.h>
#include <elf.h>
#include <link.h>

namespace qor::record {

namespace {

struct nothrow_tag;

using release_function = void(void*);

// Libraries whose operators new have shown their habit. Their operators delete have the same one.
std::atomic<const void*> library_that_calls_hooks;
std::atomic<const void*> library_that_works_alone;

template <class Function>
Function* find(next_function<Function>& next) noexcept {
    Function* found = next.function.load(std::memory_order_relaxed);
    if (found != nullptr) [[likely]]
        return found;
    void* const symbol = find_next_of_cxx(next.name);
    next.library.store(symbol != nullptr ? add_allocation_function(symbol) : nullptr, std::memory_order_relaxed);
    found = reinterpret_cast<Function*>(symbol);
    next.function.store(found, std::memory_order_relaxed);
    return found;
}

// Not noexcept: an exception of the operator passes through.
template <class Function, class... Arguments>
[[gnu::always_inline]] inline void* allocate(next_function<Function>& next, const machine_context& caller,
                                             std::size_t size, Arguments... arguments) {
    Function* const function = find(next);
    if (function == nullptr) [[unlikely]] {
        // No C++ library was found, so the block comes from malloc.
        void* const made = malloc(size);
        if (made == nullptr)
            abort();
        return made;
    }
    const unsigned long before = records_of_this_thread();
    void* const made = function(arguments...);
    if (made == nullptr)
        return nullptr;
    const bool is_recorded = has_recorded_around(made, before);
    if (next.found.load(std::memory_order_relaxed) == habit::unknown) {
        const void* const library = next.library.load(std::memory_order_relaxed);
        (is_recorded ? library_that_calls_hooks : library_that_works_alone).store(library, std::memory_order_relaxed);
        next.found.store(is_recorded ? habit::calls_hooks : habit::works_alone, std::memory_order_release);
    }
    if (!is_recorded)
        record_allocation(record_kind::allocation, made, size, caller);
    return made;
}

template <class Function, class... Arguments>
[[gnu::always_inline]] inline void release(next_function<Function>& next, const machine_context& caller, void* block,
                                           Arguments... arguments) noexcept {
    Function* const function = find(next);
    if (function == nullptr) [[unlikely]]
        return free(block);
    const void* const library = next.library.load(std::memory_order_relaxed);
    if (library != nullptr && library == library_that_calls_hooks.load(std::memory_order_relaxed) &&
        library != library_that_works_alone.load(std::memory_order_relaxed))
        next.found.store(habit::calls_hooks, std::memory_order_release);
    if (block == nullptr || next.found.load(std::memory_order_relaxed) == habit::calls_hooks)
        return function(block, arguments...);
    if (announced != block)
        record_release(record_kind::release, block, caller);
    const announced_release scope(block);
    function(block, arguments...);
}

} // namespace

// An operator new in the program itself takes precedence over this library's; its frames are skipped, too.
void find_operators_of_program() noexcept {
    for (const char* const name :
         {"_Znwm", "_Znam", "_ZnwmRKSt9nothrow_t", "_ZnamRKSt9nothrow_t", "_ZnwmSt11align_val_t",
          "_ZnamSt11align_val_t", "_ZnwmSt11align_val_tRKSt9nothrow_t", "_ZnamSt11align_val_tRKSt9nothrow_t"}) {
        void* const first = dlsym(RTLD_DEFAULT, name);
        Dl_info of_first;
        Dl_info of_this;
        if (first != nullptr && dladdr(first, &of_first) != 0 &&
            dladdr(reinterpret_cast<void*>(&find_operators_of_program), &of_this) != 0 &&
            of_first.dli_fbase != of_this.dli_fbase)
            add_allocation_function(first);
    }
}

} // namespace qor::record

using namespace qor::record;

#define QOR_HOOK extern "C" __attribute__((visibility("default")))

// Most operators call malloc or free, which record: those are jumped to, so that no frame of this library lies between.
#define QOR_NEW(name, parameters, arguments)                                                                           \
    namespace {                                                                                                        \
    constinit next_function<void * parameters> next_##name{#name};                                                     \
    [[gnu::noinline]] void* record_##name parameters {                                                                 \
        return allocate(next_##name, capture_context(), size, QOR_LIST arguments);                                     \
    }                                                                                                                  \
    }                                                                                                                  \
    QOR_HOOK void* name parameters {                                                                                   \
        if (next_##name.found.load(std::memory_order_acquire) == habit::calls_hooks) [[likely]]                        \
            return next_##name.function.load(std::memory_order_relaxed) arguments;                                     \
        return record_##name arguments;                                                                                \
    }
#define QOR_DELETE(name, parameters, arguments, ...)                                                                   \
    namespace {                                                                                                        \
    constinit next_function<void parameters> next_##name{#name};                                                       \
    [[gnu::noinline]] void record_##name parameters {                                                                  \
        release(next_##name, capture_context(), block __VA_OPT__(, ) __VA_ARGS__);                                     \
    }                                                                                                                  \
    }                                                                                                                  \
    QOR_HOOK void name parameters {                                                                                    \
        if (next_##name.found.load(std::memory_order_acquire) == habit::calls_hooks) [[likely]]                        \
            return next_##name.function.load(std::memory_order_relaxed) arguments;                                     \
        return record_##name arguments;                                                                                \
    }
#define QOR_LIST(...) __VA_ARGS__

QOR_NEW(_Znwm, (std::size_t size), (size))
QOR_NEW(_Znam, (std::size_t size), (size))
QOR_NEW(_ZnwmRKSt9nothrow_t, (std::size_t size, const nothrow_tag* tag), (size, tag))
QOR_NEW(_ZnamRKSt9nothrow_t, (std::size_t size, const nothrow_tag* tag), (size, tag))
QOR_NEW(_ZnwmSt11align_val_t, (std::size_t size, std::size_t alignment), (size, alignment))
QOR_NEW(_ZnamSt11align_val_t, (std::size_t size, std::size_t alignment), (size, alignment))
QOR_NEW(_ZnwmSt11align_val_tRKSt9nothrow_t, (std::size_t size, std::size_t alignment, const nothrow_tag* tag),
        (size, alignment, tag))
QOR_NEW(_ZnamSt11align_val_tRKSt9nothrow_t, (std::size_t size, std::size_t alignment, const nothrow_tag* tag),
        (size, alignment, tag))

QOR_DELETE(_ZdlPv, (void* block), (block))
QOR_DELETE(_ZdaPv, (void* block), (block))
QOR_DELETE(_ZdlPvm, (void* block, std::size_t size), (block, size), size)
QOR_DELETE(_ZdaPvm, (void* block, std::size_t size), (block, size), size)
QOR_DELETE(_ZdlPvRKSt9nothrow_t, (void* block, const nothrow_tag* tag), (block, tag), tag)
QOR_DELETE(_ZdaPvRKSt9nothrow_t, (void* block, const nothrow_tag* tag), (block, tag), tag)
QOR_DELETE(_ZdlPvSt11align_val_t, (void* block, std::size_t alignment), (block, alignment), alignment)
QOR_DELETE(_ZdaPvSt11align_val_t, (void* block, std::size_t alignment), (block, alignment), alignment)
QOR_DELETE(_ZdlPvmSt11align_val_t, (void* block, std::size_t size, std::size_t alignment), (block, size, alignment),
           size, alignment)
QOR_DELETE(_ZdaPvmSt11align_val_t, (void* block, std::size_t size, std::size_t alignment), (block, size, alignment),
           size, alignment)
QOR_DELETE(_ZdlPvSt11align_val_tRKSt9nothrow_t, (void* block, std::size_t alignment, const nothrow_tag* tag),
           (block, alignment, tag), alignment, tag)
QOR_DELETE(_ZdaPvSt11align_val_tRKSt9nothrow_t, (void* block, std::size_t alignment, const nothrow_tag* tag),
           (block, alignment, tag), alignment, tag)
