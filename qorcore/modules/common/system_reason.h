// Inside the modules: texts for the system's error codes.
#pragma once

#include <string>

namespace qor::modules {

// Returns the system's own text for an error code (errno, GetLastError, WSAGetLastError).
std::string system_reason(int code);

} // namespace qor::modules
