// Whole pages of memory from the operating system. Pages that a table keeps until the process ends do not count as heap
// leaks, and freed pages return to the system at once.
#pragma once

#include <cstddef>

namespace qor::heap::system_pages {

// Returns zeroed pages of `size` bytes; null if the system has no memory.
void* take(std::size_t size) noexcept;

// Frees pages that take() returned for the same size.
void give_back(void* pages, std::size_t size) noexcept;

} // namespace qor::heap::system_pages
