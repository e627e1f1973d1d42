// Inside the allocator: what it asks of the operating system.
#pragma once

#include "qor/system/Types.h"

namespace qor::memory {

// Whole zeroed pages, or null.
void* map_pages(uint64 size) noexcept;
void unmap_pages(void* pages, uint64 size) noexcept;

// A block at a multiple of `alignment`, a power of two; null: no memory.
void* allocate_aligned(uint64 alignment, uint64 size) noexcept;

// std::realloc and std::free that take aligned blocks too. The new block is aligned for any type, no more.
void* change_size(void* block, uint64 size) noexcept;
void give_back(void* block) noexcept;

} // namespace qor::memory
