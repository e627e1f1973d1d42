// Memory between two pages that cannot be read or written, so that an access one byte beyond its end stops the test.
#pragma once

#include <cstddef>

namespace qor::test {

class fenced_memory {
public:
    // Allocates at least `size` bytes, in whole pages, zeroed.
    explicit fenced_memory(std::size_t size);
    fenced_memory(const fenced_memory&) = delete;
    fenced_memory& operator=(const fenced_memory&) = delete;
    ~fenced_memory();

    unsigned char* begin() const noexcept { return m_begin; }
    unsigned char* end() const noexcept { return m_end; }

private:
    unsigned char* m_begin;
    unsigned char* m_end;
};

} // namespace qor::test
