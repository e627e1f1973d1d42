// Inside the library: memory for the duration of one operation, on the stack if it is small.
#pragma once

#include "memory/allocator.h"

namespace qor::string {

class working_memory {
public:
    // Lines of a report fit; larger texts are allocated.
    static constexpr std::size_t small_size = 1024;

    working_memory() noexcept = default;
    working_memory(const working_memory&) = delete;
    working_memory& operator=(const working_memory&) = delete;
    ~working_memory() {
        if (m_large != nullptr)
            qor::glue::qor_do_free(m_large, this_file, __LINE__);
    }

    // Returns memory to write to, uninitialised. Invalidates the memory of the previous call.
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
