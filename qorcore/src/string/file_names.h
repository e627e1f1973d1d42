// Inside the library: the separators in a file name on this platform.
#pragma once

#include <string_view>

namespace qor::string {

// Each of these bytes separates a folder's name from the next name.
extern const std::string_view path_separators;

} // namespace qor::string
