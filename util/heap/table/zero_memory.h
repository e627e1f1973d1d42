// Clears large memory of malloc's without touching it all.
#pragma once

#include <cstddef>

namespace qor::heap {

// As memset with 0. Whole pages go back to the system, which puts zeroed ones in their place where one is used.
void zero_memory(void* memory, std::size_t size) noexcept;

} // namespace qor::heap
