// Memory that ends where it says: the pages on both sides of it cannot be read or written, so that a single
// byte too many ends the test.
#pragma once

#include <cstddef>

namespace qor::test {

class fenced_memory {
public:
    // At least `size` bytes, whole pages, zeroed.
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
