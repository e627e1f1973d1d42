// Inside the library: text on its way to a C stream. A terminal obeys what it finds in a text, and texts come from
// anywhere: the names of files and devices, logs, other hosts. So a terminal gets them with everything visible; a file
// or a pipe gets the bytes as they are.
#pragma once

#include "string/working_memory.h"

#include <cstdio>
#include <string_view>

namespace qor::stream {

// What a terminal gets: `\x1b` and the like for each byte of what would steer it or is no UTF-8. That is every control
// character but newline and tab, those from U+0080 on included, and what makes the text behind it run the other way
// (U+202A to U+202E, U+2066 to U+2069). Marks that change nothing but their neighbours stay: Hebrew and Arabic need
// them. The result lies in `memory`, or is `text` itself where that has nothing to hide.
std::string_view visible(std::string_view text, string::working_memory& memory) noexcept;

// Writes in one call, so that lines of several threads do not mix; false: not all of it could be written. Before text
// for standard error goes what waits in standard output, so that both stand in order where they end in one place.
bool write_text(std::FILE* stream, std::string_view text) noexcept;

// The same for those who must not wait for another stream.
bool write_this_text_only(std::FILE* stream, std::string_view text) noexcept;

// ---- for each system
bool is_terminal(std::FILE* stream) noexcept;
void flush_standard_output() noexcept;

} // namespace qor::stream
