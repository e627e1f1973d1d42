// Inside the allocator: memory from the operating system.
#pragma once

#include "qor/system/Types.h"

namespace qor::memory {

// Returns whole zeroed pages, or null.
void* map_pages(uint64 size) noexcept;
void unmap_pages(void* pages, uint64 size) noexcept;

// Returns a block at a multiple of `alignment`, a power of two, or null if there is no memory.
void* allocate_aligned(uint64 alignment, uint64 size) noexcept;

// Like std::realloc and std::free, but they accept aligned blocks too. The new block is aligned for
// any type; a larger alignment is not kept.
void* change_size(void* block, uint64 size) noexcept;
void give_back(void* block) noexcept;

} // namespace qor::memory
