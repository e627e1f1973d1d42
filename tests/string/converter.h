// The system's own converter between character sets, which shares no code with ours. UTF-16 and UTF-32 are in bytes,
// little-endian.
#pragma once

#include <string>

namespace qor::test {

// Return false for an invalid text; `out` is then undefined.
bool utf8_to_utf32(const std::string& in, std::string& out);
bool utf32_to_utf8(const std::string& in, std::string& out);
bool utf32_to_utf16(const std::string& in, std::string& out);

} // namespace qor::test
