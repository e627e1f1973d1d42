// Inside the folders on Linux: the file user-dirs.dirs, in which a user's desktop keeps where documents and
// the like lie.
#pragma once

#include <string>
#include <string_view>

namespace qor::folder {

// The folder that the file names for a key such as "MUSIC"; the home folder where it names none or there is
// no such file.
std::string user_dir(const std::string& file, std::string_view key, const std::string& home);

} // namespace qor::folder
