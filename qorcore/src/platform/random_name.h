// Inside the library: names for new files that nobody can guess.
#pragma once

#include <string>

namespace qor::platform {

inline constexpr unsigned random_name_length = 12;

// Returns characters that no file system takes for others: small letters and digits.
std::string random_name();

} // namespace qor::platform
