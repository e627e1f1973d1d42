// Inside the library: what a file name is made of on this platform.
#pragma once

#include <string_view>

namespace qor::string {

// Each of these bytes ends a folder's name.
extern const std::string_view path_separators;

} // namespace qor::string
