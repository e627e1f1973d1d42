// Memory from the system itself, in whole pages. What a table keeps until the process ends is so no leak of malloc's,
// and what it gives back the system has at once.
#pragma once

#include <cstddef>

namespace qor::heap::system_pages {

// Zeroed pages of `size` bytes; null: the system has no memory.
void* take(std::size_t size) noexcept;

// Pages as they were taken.
void give_back(void* pages, std::size_t size) noexcept;

} // namespace qor::heap::system_pages
