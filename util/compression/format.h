// The compressed forms that are read and written, and how data in them begin.
#pragma once

#include <string_view>

namespace qor::compression {

enum class format : unsigned char { none, gzip, zstd };

// The form that the first bytes of a file, or those behind the end of a stream, begin.
struct beginning {
    format is;
    bool is_open; // more bytes are needed to tell
};

inline constexpr std::size_t longest_signature = 4;

beginning recognise(std::string_view bytes) noexcept;

// The name of the program that makes it, as users know it.
const char* name_of(format which) noexcept;

} // namespace qor::compression
