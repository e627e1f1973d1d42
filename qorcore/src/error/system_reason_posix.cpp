#include "error/error.h"

#include <cerrno>
#include <cstring>

std::string qor::error::system_reason(int code) {
    char text[256];
    // The GNU form returns the text, which need not lie in the buffer.
    return strerror_r(code, text, sizeof text);
}

// On POSIX, errno is also the system's error code.
qor::error::keep_failures::keep_failures() noexcept : m_of_c_library(errno), m_of_system(0) {}
qor::error::keep_failures::~keep_failures() { errno = m_of_c_library; }
