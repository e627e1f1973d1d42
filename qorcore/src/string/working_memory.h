// Inside the library: bytes for the length of one operation, on the stack as far as they go.
#pragma once

#include "memory/allocator.h"

namespace qor::string {

class working_memory {
public:
    // Lines of a report fit; the rest is allocated.
    static constexpr std::size_t small_size = 1024;

    working_memory() noexcept = default;
    working_memory(const working_memory&) = delete;
    working_memory& operator=(const working_memory&) = delete;
    ~working_memory() {
        if (m_large != nullptr)
            qor::glue::qor_do_free(m_large, this_file, __LINE__);
    }

    // Bytes to write to, not cleared. What was asked for before is gone.
    char* get(std::size_t size) noexcept {
        if (size <= small_size)
            return m_small;
        if (m_large != nullptr)
            qor::glue::qor_do_free(m_large, this_file, __LINE__);
        m_large = static_cast<char*>(qor::memory::require(size, this_file, __LINE__));
        return m_large;
    }

private:
    static constexpr char this_file[] = "qorcore/src/string/working_memory";

    char* m_large = nullptr;
    char m_small[small_size];
};

} // namespace qor::string
