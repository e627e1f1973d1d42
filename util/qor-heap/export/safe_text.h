// Texts of recordings and of debug information are strangers' input. These functions make them fit to be shown.
#pragma once

#include <string>
#include <string_view>

namespace qor::heap_tool {

// The text in valid UTF-8. U+FFFD takes the place of each byte that belongs to no character, and of characters that
// move the cursor or reverse the direction of what follows: a name can neither control a terminal nor look like
// another.
std::string safe_text(std::string_view text);

// The text, or as much of its beginning as takes at most `size` bytes with "…" behind it. `text` is valid UTF-8.
std::string shortened(std::string_view text, std::size_t size);

// The last part of a path of Linux or Windows.
std::string_view file_name(std::string_view path);

} // namespace qor::heap_tool
