// Whole pages of memory from the operating system. Pages that a table keeps until the process ends are no leak of the
// heap, and freed pages return to the system at once.
#pragma once

#include <cstddef>

namespace qor::heap::system_pages {

// Zeroed pages of `size` bytes; null: the system has no memory.
void* take(std::size_t size) noexcept;

// Frees pages of take(), with the same size.
void give_back(void* pages, std::size_t size) noexcept;

} // namespace qor::heap::system_pages
