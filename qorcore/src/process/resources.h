// Inside the library: files that come with it.
#pragma once

#include <string>
#include <string_view>

namespace qor::process {

// The path of a file that came with the library: in the library's own folder or in the folder "qor" there. Empty:
// there is none.
std::string find_resource(std::string_view name);

} // namespace qor::process
