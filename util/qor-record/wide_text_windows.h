// Texts of the system: UTF-16.
#pragma once

#include <string>
#include <string_view>

namespace qor::record {

std::wstring wide(std::string_view text);
std::string narrow(std::wstring_view text);

} // namespace qor::record
