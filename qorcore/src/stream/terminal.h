// Inside the library: terminals behind C streams. A console of Windows has a code page, which programs share and which
// lacks most characters; so its text goes through functions that take and give UTF-16. On other systems a terminal
// reads and writes UTF-8 like any other file.
#pragma once

#include <cstdio>
#include <string_view>

class qorString;

namespace qor::stream {

bool is_terminal(std::FILE* stream) noexcept;

// Writes valid UTF-8 behind what the stream still holds in its buffer. Returns false if not all of the text could be
// written.
bool write_to_terminal(std::FILE* stream, std::string_view text) noexcept;

enum class line_end {
    use_stream, // nothing was read: the C library's functions give the line
    newline,    // the line is complete; a carriage return may be its last byte
    end_of_input,
    failed, // error::stream_failure() gives the reason
};

// Reads up to the end of a line, and appends the bytes before it with `append`. No copy of them stays in memory.
line_end read_terminal_line(std::FILE* stream, qorString& line,
                            void (*append)(qorString& line, const char* bytes, unsigned size) noexcept) noexcept;

} // namespace qor::stream
