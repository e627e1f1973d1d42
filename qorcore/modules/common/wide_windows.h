// Inside the modules on Windows: the system's texts are UTF-16, ours are UTF-8. Invalid parts become the replacement
// character.
#pragma once

#include <string>
#include <string_view>

namespace qor::modules {

std::wstring to_wide(std::string_view text);
std::string from_wide(std::wstring_view text);

} // namespace qor::modules
