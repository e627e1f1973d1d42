// Inside the Windows half of the library: the system's texts are UTF-16, ours are UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace qor::platform {

// Returns false if the text is not valid UTF-8 or contains a NUL. No object of the system can have such a name.
bool to_wide(std::string_view text, std::wstring& out);

// The same for a path. A path that the system would refuse for its length comes back in the form without that limit,
// absolute and behind "\\\\?\\".
bool to_wide_path(std::string_view path, std::wstring& out);

// Replaces invalid units with the replacement character.
std::string from_wide(std::wstring_view text);

} // namespace qor::platform
