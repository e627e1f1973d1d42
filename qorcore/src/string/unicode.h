// Inside the library: UTF-8, to and from characters (Unicode code points).
#pragma once

#include "qor/system/Types.h"

#include <string_view>

namespace qor::string {

// Stands for what is no character.
inline constexpr uint32 replacement_character = 0xfffd;

constexpr bool is_character(uint32 value) noexcept { return value < 0xd800 || (value >= 0xe000 && value <= 0x10ffff); }

struct decoded {
    uint32 character; // replacement_character where the bytes are none
    uint32 size;      // how many bytes it took, 1 to 4
    bool valid;
};

// The first character of a text that is not empty. Overlong forms, surrogates and numbers beyond 10FFFF are
// faults. A fault takes the longest run of bytes that could have begun a character, one byte at least, as
// everyone who follows the Unicode standard does it.
decoded decode(std::string_view text) noexcept;

// The number of bytes that a character takes in UTF-8; 0: it is none.
uint32 encode(uint32 character, char (&out)[4]) noexcept;

} // namespace qor::string
