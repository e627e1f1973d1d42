// Inside the library: setting the calling thread's last error.
#pragma once

#include "qor/qor.h"

#include <initializer_list>
#include <string>

namespace qor::error {

// At most ten inserts; the texts are copied.
void set(qorErrorNumber number, std::initializer_list<const char*> inserts = {}) noexcept;

// The operating system's text for one of its error codes.
std::string system_reason(int code);

// Preserves the C library's and the system's last error codes for the surrounding code.
class keep_failures {
public:
    keep_failures() noexcept;
    keep_failures(const keep_failures&) = delete;
    keep_failures& operator=(const keep_failures&) = delete;
    ~keep_failures();

private:
    int m_of_c_library;
    [[maybe_unused]] unsigned long m_of_system; // only Windows has one beside errno
};

// Sets an error whose inserts are a subject and the system's reason, such as cannot_open_file.
void set_with_reason(qorErrorNumber number, const char* subject, int code) noexcept;

} // namespace qor::error
