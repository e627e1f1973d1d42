// Inside the library: files that are installed with it.
#pragma once

#include <string>
#include <string_view>

namespace qor::platform {

// Returns the path of a file that is installed with the library: in the library's own folder, otherwise in the folder
// "qor" there, its usual place. The caller checks that the file exists and can be used.
std::string find_resource(std::string_view name);

} // namespace qor::platform
