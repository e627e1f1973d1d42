#include "glue/own_table.h"

#include <cstdint>
#include <sys/mman.h>
#include <unistd.h>

// Clients read the rows without synchronisation: each row is one word, and both values of it do the same.
[[gnu::no_sanitize("thread")]] static void write_words(const void* first, const void* with, std::size_t size) noexcept {
    auto* const to = static_cast<void* volatile*>(const_cast<void*>(first));
    for (std::size_t i = 0; i < size / sizeof *to; ++i)
        to[i] = static_cast<void* const*>(with)[i];
}

void qor::glue::replace_rows(const void* first, const void* with, std::size_t size) noexcept {
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto begin = reinterpret_cast<std::uintptr_t>(first) / page * page;
    const auto length = reinterpret_cast<std::uintptr_t>(first) + size - begin;
    if (mprotect(reinterpret_cast<void*>(begin), length, PROT_READ | PROT_WRITE) != 0)
        return;
    write_words(first, with, size);
    mprotect(reinterpret_cast<void*>(begin), length, PROT_READ);
}
