#include "zero_memory.h"

#include <cstdint>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

namespace qor::heap {

void zero_memory(void* memory, std::size_t size) noexcept {
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto begin = reinterpret_cast<std::uintptr_t>(memory);
    const std::uintptr_t first = (begin + page - 1) / page * page;
    const std::uintptr_t last = (begin + size) / page * page;
    // Locked memory cannot be returned.
    if (first >= last || madvise(reinterpret_cast<void*>(first), last - first, MADV_DONTNEED) != 0) {
        std::memset(memory, 0, size);
        return;
    }
    std::memset(memory, 0, first - begin);
    std::memset(reinterpret_cast<void*>(last), 0, begin + size - last);
}

} // namespace qor::heap
