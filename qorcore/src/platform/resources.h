// Inside the library: files that come with it.
#pragma once

#include <string>
#include <string_view>

namespace qor::platform {

// The path of a file that came with the library: in the library's own folder, else in the folder "qor" there, where it
// usually lies. That it is there and can be used is for the caller to see.
std::string find_resource(std::string_view name);

} // namespace qor::platform
