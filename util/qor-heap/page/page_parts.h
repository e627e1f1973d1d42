// The files of the page, as the build embeds them.
#pragma once

#include <string_view>

namespace qor::heap_tool::page_parts {

extern const std::string_view html; // with {{names}} for what is filled in
extern const std::string_view style;
extern const std::string_view script;

// SHA-256, hexadecimal.
extern const std::string_view style_hash;
extern const std::string_view script_hash;

} // namespace qor::heap_tool::page_parts
