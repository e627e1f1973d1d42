#include "next.h"

#include "process.h"

#include <cstdlib>
#include <dlfcn.h>
#include <elf.h>
#include <link.h>

namespace qor::record {

namespace {

std::atomic<std::size_t> reserve_used;

} // namespace

void* find_next(const char* name) noexcept { return dlsym(RTLD_NEXT, name); }

void* find_next_of_cxx(const char* name) noexcept {
    if (void* const found = find_next(name))
        return found;
    for (const char* const library : {"libstdc++.so.6", "libc++abi.so.1", "libc++.so.1"})
        if (void* const handle = dlopen(library, RTLD_LAZY | RTLD_NOLOAD))
            if (void* const found = dlsym(handle, name))
                return found;
    return nullptr;
}

void* allocate_from_reserve(std::size_t size) noexcept {
    const std::size_t whole = (size + 2 * reserve_alignment - 1) & ~(reserve_alignment - 1);
    const std::size_t at = reserve_used.fetch_add(whole, std::memory_order_relaxed);
    if (size > reserve_size || at + whole > reserve_size)
        return nullptr;
    __builtin_memcpy(reserve + at, &size, sizeof size);
    return reserve + at + reserve_alignment;
}

std::size_t size_in_reserve(const void* block) noexcept {
    std::size_t size;
    __builtin_memcpy(&size, static_cast<const char*>(block) - reserve_alignment, sizeof size);
    return size;
}

} // namespace qor::record
