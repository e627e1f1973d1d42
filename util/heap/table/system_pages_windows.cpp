#include "system_pages.h"

#include <windows.h>

namespace qor::heap {

void* system_pages::take(std::size_t size) noexcept {
    return VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}

void system_pages::give_back(void* pages, std::size_t) noexcept { VirtualFree(pages, 0, MEM_RELEASE); }

} // namespace qor::heap
