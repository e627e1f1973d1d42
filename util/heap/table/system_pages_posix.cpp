#include "system_pages.h"

#include <sys/mman.h>

namespace qor::heap {

void* system_pages::take(std::size_t size) noexcept {
    void* const pages = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return pages != MAP_FAILED ? pages : nullptr;
}

void system_pages::give_back(void* pages, std::size_t size) noexcept { munmap(pages, size); }

} // namespace qor::heap
