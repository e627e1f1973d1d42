// The words and numbers of a log line, read in place.
//
// Lines lie in the runs of IQORSimpleFileReader::ReadLines: every line is followed by its end, and the last one by
// padding that may be read. So no loop here checks for the end of the buffer.
#pragma once

#include "qor/qor.h"

#include <string_view>

namespace qor::heap::log_fields {

// White space of the C locale, whatever locale the process has.
constexpr bool is_space(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Removes the next line from the run [next, end), and from the line the white space at both ends. Returns false if the
// run is used up.
bool next_line(const char*& next, const char* end, std::string_view& line) noexcept;

// Removes the first word from `rest`; the result is empty if there is no word.
std::string_view next_word(std::string_view& rest) noexcept;

// Read numbers as the C library does where long has 64 bits, on every platform: a word that is not a number gives 0,
// characters after the digits are ignored, and a number that is too large gives the largest value.
uint64 hexadecimal(std::string_view word) noexcept;
uint64 unsigned_number(std::string_view word) noexcept; // base 10, or 8 or 16 by its prefix
int64 signed_number(std::string_view word) noexcept;

} // namespace qor::heap::log_fields
