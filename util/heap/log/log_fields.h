// The words and numbers of a log line, read in place.
//
// Lines lie in the runs of IQORSimpleFileReader::ReadLines: behind every line stands its end, and behind the last
// one padding that may be read. So no loop here asks where the buffer ends.
#pragma once

#include "qor/qor.h"

#include <string_view>

namespace qor::heap::log_fields {

// White space of the C locale, whatever locale the process has.
constexpr bool is_space(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Takes the next line off the run [next, end), without white space at both ends. False: the run is used up.
bool next_line(const char*& next, const char* end, std::string_view& line) noexcept;

// Cuts the first word off `rest`; empty: there is none.
std::string_view next_word(std::string_view& rest) noexcept;

// Numbers as the C library reads them where long has 64 bits, on every platform: what is no number is 0, what
// follows the digits is ignored, too large a number is the largest.
uint64 hexadecimal(std::string_view word) noexcept;
uint64 unsigned_number(std::string_view word) noexcept; // base 10, or 8 or 16 by its prefix
int64 signed_number(std::string_view word) noexcept;

} // namespace qor::heap::log_fields
