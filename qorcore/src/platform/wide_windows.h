// Inside the Windows half of the library: the system's texts are UTF-16, ours are UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace qor::platform {

// False: the text is no UTF-8, or holds a NUL. Such a text names nothing on this system.
bool to_wide(std::string_view text, std::wstring& out);

// What is no character becomes a replacement.
std::string from_wide(std::wstring_view text);

} // namespace qor::platform
