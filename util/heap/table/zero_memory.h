// Clears a large block from malloc without touching all of it.
#pragma once

#include <cstddef>

namespace qor::heap {

// Same result as memset with 0. Whole pages go back to the system, which supplies zeroed ones on first use.
void zero_memory(void* memory, std::size_t size) noexcept;

} // namespace qor::heap
