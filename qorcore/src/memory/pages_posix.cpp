#include "memory/pages.h"

#include <cstdlib>
#include <pthread.h>
#include <sys/mman.h>

void* qor::memory::map_pages(uint64 size) noexcept {
    void* const pages =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return pages != MAP_FAILED ? pages : nullptr;
}

void qor::memory::unmap_pages(void* pages, uint64 size) noexcept { munmap(pages, size); }

void* qor::memory::allocate_aligned(uint64 alignment, uint64 size) noexcept {
    void* block = nullptr;
    return posix_memalign(&block, alignment, size) == 0 ? block : nullptr;
}

void* qor::memory::change_size(void* block, uint64 size) noexcept { return std::realloc(block, size); }

void qor::memory::give_back(void* block) noexcept { std::free(block); }

void qor::memory::watch_forks(void (*before)() noexcept, void (*in_parent)() noexcept,
                              void (*in_child)() noexcept) noexcept {
    pthread_atfork(before, in_parent, in_child);
}
