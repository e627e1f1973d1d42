// Inside the library: conversion between UTF-8 and characters (Unicode code points).
#pragma once

#include "qor/system/Types.h"

#include <string_view>

namespace qor::string {

// Stands for an invalid character.
inline constexpr uint32 replacement_character = 0xfffd;

constexpr bool is_character(uint32 value) noexcept { return value < 0xd800 || (value >= 0xe000 && value <= 0x10ffff); }

struct decoded {
    uint32 character; // replacement_character if the bytes are invalid
    uint32 size;      // the number of bytes consumed, 1 to 4
    bool valid;
};

// Decodes the first character of a text, which must not be empty. Overlong forms, surrogates and numbers beyond 10FFFF
// are invalid. An invalid sequence is the longest run of bytes that could have begun a character, at least one byte, as
// the Unicode standard recommends.
decoded decode(std::string_view text) noexcept;

// Returns the number of bytes that a character takes in UTF-8; 0 if the value is not a character.
uint32 encode(uint32 character, char (&out)[4]) noexcept;

} // namespace qor::string
