// Inside the modules: the system's error codes in words.
#pragma once

#include <string>

namespace qor::modules {

// The system's own text for one of its error codes (errno, GetLastError, WSAGetLastError).
std::string system_reason(int code);

} // namespace qor::modules
