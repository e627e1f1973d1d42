#include "zero_memory.h"

#include <cstring>

namespace qor::heap {

void zero_memory(void* memory, std::size_t size) noexcept { std::memset(memory, 0, size); }

} // namespace qor::heap
