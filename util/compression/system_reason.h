// Texts for the system's error codes.
#pragma once

#include <string>

namespace qor::compression {

// Returns the system's own text, in UTF-8, for an error code (errno, GetLastError).
std::string system_reason(int code);

} // namespace qor::compression
