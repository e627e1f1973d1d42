// Inside the Windows half of the library: the system's texts are UTF-16, ours are UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace qor::platform {

// Returns false if the text is not valid UTF-8 or contains a NUL. No object of the system can have such a name.
bool to_wide(std::string_view text, std::wstring& out);

// Replaces invalid units with the replacement character.
std::string from_wide(std::wstring_view text);

// Names of files need not be valid UTF-16. In our texts, a single surrogate has the form that UTF-8 has for numbers of
// its range, three bytes, so that each name survives a round trip.
std::string name_from_wide(std::wstring_view name);

// Converts a path for the system's functions. A path that is longer than they accept becomes absolute, in the form
// "\\?\C:\folder" that has no such limit. Returns false like to_wide().
bool to_wide_path(std::string_view path, std::wstring& out);

} // namespace qor::platform
