// Inside the library: helpers for the string operations.
#pragma once

#include "qor/qor.h"

#include <string_view>

namespace qor::string {

// A string's length with its terminator fits an int32. A longer string is treated as out of memory.
inline constexpr uint32 max_length = 0x7ffffffe;

inline std::string_view view(const qorString& text) noexcept { return {text.Text(), text.Length()}; }
inline std::string_view view(const char* text) noexcept { return text != nullptr ? text : ""; }

// `text` may lie in `out`.
inline void assign(qorString& out, std::string_view text) noexcept {
    qor::glue::qorString_Set(&out, text.data(), static_cast<uint32>(text.size()));
}

// White space of the C locale, whatever locale is set: blank, \t, \n, \v, \f, \r.
constexpr bool is_white_space(char c) noexcept {
    return c == ' ' || static_cast<unsigned char>(c - '\t') <= '\r' - '\t';
}

constexpr char to_lower(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }
constexpr char to_upper(char c) noexcept { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; }

// Compares unsigned bytes; a prefix comes first.
inline int compare(std::string_view left, std::string_view right) noexcept { return left.compare(right); }

// Like compare, but with upper-case letters taken as lower-case ones.
int compare_no_case(std::string_view left, std::string_view right) noexcept;

} // namespace qor::string
