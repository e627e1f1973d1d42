#include "memory/pages.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <mutex>
#include <unordered_map>
#include <windows.h>

namespace {

// The C library here only frees addresses that its malloc returned. So an aligned block lies inside a larger one, which
// this table finds. Aligned blocks are rare; most processes have none.
struct aligned_blocks {
    std::mutex lock;
    std::unordered_map<void*, void*> origins;
    std::atomic<std::size_t> count{0};
};

aligned_blocks& aligned() {
    static auto* const made = new aligned_blocks;
    return *made;
}

// Returns the start of the malloc block that contains this block: the block itself, unless it is an aligned one.
void* origin_of(void* block) {
    aligned_blocks& known = aligned();
    if (known.count.load(std::memory_order_acquire) == 0)
        return block;
    const std::lock_guard hold(known.lock);
    const auto found = known.origins.find(block);
    return found != known.origins.end() ? found->second : block;
}

void remember(void* block, void* origin) {
    aligned_blocks& known = aligned();
    const std::lock_guard hold(known.lock);
    known.origins[block] = origin;
    known.count.store(known.origins.size(), std::memory_order_release);
}

void forget(void* block) {
    aligned_blocks& known = aligned();
    const std::lock_guard hold(known.lock);
    known.origins.erase(block);
    known.count.store(known.origins.size(), std::memory_order_release);
}

} // namespace

void* qor::memory::map_pages(uint64 size) noexcept {
    return VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}

void qor::memory::unmap_pages(void* pages, uint64) noexcept { VirtualFree(pages, 0, MEM_RELEASE); }

void* qor::memory::allocate_aligned(uint64 alignment, uint64 size) noexcept {
    if (size > SIZE_MAX - alignment)
        return nullptr;
    void* const origin = std::malloc(size + alignment);
    if (origin == nullptr)
        return nullptr;
    const auto address = reinterpret_cast<std::uintptr_t>(origin);
    void* const block = reinterpret_cast<void*>((address + alignment - 1) & ~(alignment - 1));
    if (block != origin)
        remember(block, origin);
    return block;
}

void* qor::memory::change_size(void* block, uint64 size) noexcept {
    void* const origin = origin_of(block);
    if (origin == block)
        return std::realloc(block, size);
    void* const moved = std::malloc(size);
    if (moved == nullptr)
        return nullptr;
    const auto offset = static_cast<std::size_t>(static_cast<char*>(block) - static_cast<char*>(origin));
    std::memcpy(moved, block, std::min<std::size_t>(size, _msize(origin) - offset));
    give_back(block);
    return moved;
}

void qor::memory::give_back(void* block) noexcept {
    void* const origin = origin_of(block);
    // Remove it first: once it is free, another thread may get the same address.
    if (origin != block)
        forget(block);
    std::free(origin);
}
