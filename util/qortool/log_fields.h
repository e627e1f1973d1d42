// The words and numbers of a log line, read in place.
#pragma once

#include "qor/system/Types.h"

#include <string_view>

namespace log_fields {

// White space of the C locale, whatever locale the process has.
constexpr bool is_space(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Cuts the first word off `rest`; empty: there is none.
inline std::string_view next_word(std::string_view& rest) noexcept {
    const char* at = rest.data();
    const char* const end = at + rest.size();
    while (at != end && is_space(*at))
        ++at;
    const char* const begin = at;
    while (at != end && !is_space(*at))
        ++at;
    rest = {at, static_cast<std::size_t>(end - at)};
    return {begin, static_cast<std::size_t>(at - begin)};
}

// Numbers as the C library reads them where long has 64 bits, on every platform: what is no number is 0, what
// follows the digits is ignored, too large a number is the largest. A word must be followed by white space or a
// NUL.
uint64 hexadecimal(std::string_view word) noexcept;
uint64 unsigned_number(std::string_view word) noexcept; // base 10, or 8 or 16 by its prefix
int64 signed_number(std::string_view word) noexcept;

} // namespace log_fields
