// Inside the folders on Linux: the file user-dirs.dirs, in which a user's desktop stores the paths of documents and
// similar folders.
#pragma once

#include <string>
#include <string_view>

namespace qor::folder {

// Returns the folder that the file contains for a key such as "MUSIC". Returns the home folder if the file is missing
// or has no such entry.
std::string user_dir(const std::string& file, std::string_view key, const std::string& home);

} // namespace qor::folder
