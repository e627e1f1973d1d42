#include "glue/own_table.h"

#include <windows.h>

// Clients read the rows without synchronisation: each row is one word, and both values of it do the same.
void qor::glue::replace_rows(const void* first, const void* with, std::size_t size) noexcept {
    auto* const to = static_cast<void* volatile*>(const_cast<void*>(first));
    DWORD before;
    if (!VirtualProtect(const_cast<void**>(to), size, PAGE_READWRITE, &before))
        return;
    for (std::size_t i = 0; i < size / sizeof *to; ++i)
        to[i] = static_cast<void* const*>(with)[i];
    VirtualProtect(const_cast<void**>(to), size, before, &before);
}
