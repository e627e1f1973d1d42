// Inside the library: what the string operations share.
#pragma once

#include "qor/qor.h"

#include <string_view>

namespace qor::string {

// A string's length, with its terminator, fits an int32; anything longer is exhaustion.
inline constexpr uint32 max_length = 0x7ffffffe;

inline std::string_view view(const qorString& text) noexcept { return {text.Text(), text.Length()}; }
inline std::string_view view(const char* text) noexcept { return text != nullptr ? text : ""; }

// `text` may lie in `out` itself.
inline void assign(qorString& out, std::string_view text) noexcept {
    qor::glue::qorString_Set(&out, text.data(), static_cast<uint32>(text.size()));
}

// The C locale's, whatever locale is set: blank, \t, \n, \v, \f, \r.
constexpr bool is_white_space(char c) noexcept {
    return c == ' ' || static_cast<unsigned char>(c - '\t') <= '\r' - '\t';
}

constexpr char to_lower(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }
constexpr char to_upper(char c) noexcept { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; }

// By unsigned bytes, a prefix first.
inline int compare(std::string_view left, std::string_view right) noexcept { return left.compare(right); }

// The same with letters taken as lower case.
int compare_no_case(std::string_view left, std::string_view right) noexcept;

} // namespace qor::string
