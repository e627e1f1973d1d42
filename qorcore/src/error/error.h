// Inside the library: setting the calling thread's last error.
#pragma once

#include "qor/qor.h"

#include <initializer_list>
#include <string>

namespace qor::error {

// At most ten inserts; the texts are copied.
void set(qorErrorNumber number, std::initializer_list<const char*> inserts = {}) noexcept;

// What the operating system says of one of its error codes, in its own words.
std::string system_reason(int code);

// The system's code for what the C library's stream operation that was called last failed with.
int stream_failure() noexcept;

// Lets the code around it still find the failures that the C library and the system noted last.
class keep_failures {
public:
    keep_failures() noexcept;
    keep_failures(const keep_failures&) = delete;
    keep_failures& operator=(const keep_failures&) = delete;
    ~keep_failures();

private:
    int m_of_c_library;
    unsigned long m_of_system;
};

// An error whose last insert is the system's reason, as in cannot_open_file: subject, reason.
void set_with_reason(qorErrorNumber number, const char* subject, int code) noexcept;

} // namespace qor::error
