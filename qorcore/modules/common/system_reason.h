// Inside the modules: texts for the system's error codes.
#pragma once

#include <string>
#include <system_error>

namespace qor::modules {

// Returns the system's own text for an error code (errno, GetLastError, WSAGetLastError).
std::string system_reason(int code);

// The category of such codes in std::system_error. The texts of the C++ library's own have the encoding of the code
// page on Windows.
const std::error_category& system_category() noexcept;

} // namespace qor::modules
