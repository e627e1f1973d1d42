#include "memory/pages.h"

#include <cstdint>
#include <cstdlib>
#include <sys/mman.h>

namespace {

constexpr uint64 huge_page = uint64{2} << 20;

// A caller that wants so much aligned memory normally uses all of it. A system without huge pages provides small ones.
void ask_for_huge_pages(void* block, uint64 size) {
    const auto begin = reinterpret_cast<std::uintptr_t>(block);
    const std::uintptr_t first = (begin + huge_page - 1) & ~(huge_page - 1);
    const std::uintptr_t last = (begin + size) & ~(huge_page - 1);
    madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
}

} // namespace

void* qor::memory::map_pages(uint64 size) noexcept {
    void* const pages = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return pages != MAP_FAILED ? pages : nullptr;
}

void qor::memory::unmap_pages(void* pages, uint64 size) noexcept { munmap(pages, size); }

void* qor::memory::allocate_aligned(uint64 alignment, uint64 size) noexcept {
    void* block = nullptr;
    if (posix_memalign(&block, alignment, size) != 0)
        return nullptr;
    if (size >= 2 * huge_page)
        ask_for_huge_pages(block, size);
    return block;
}

void* qor::memory::change_size(void* block, uint64 size) noexcept { return std::realloc(block, size); }

void qor::memory::give_back(void* block) noexcept { std::free(block); }
