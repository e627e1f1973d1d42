// Inside the library: files that are installed with it.
#pragma once

#include <string>
#include <string_view>

namespace qor::platform {

// Whether libqor lies in the private folder "qor" of an installation, with all that belongs to it, if this is its
// folder. In a build, and where a program brings it along, that folder is beside it.
bool is_installed(std::string_view library_folder) noexcept;

// Returns the folder of modules and catalogs with a trailing separator; empty if it is unknown.
std::string resource_folder();

// Returns the path of a file that is installed with the library: in the library's own folder, otherwise in the folder
// "qor" there. Where there is none, the path in its usual place. The caller checks that the file exists and can be
// used.
std::string find_resource(std::string_view name);

} // namespace qor::platform
