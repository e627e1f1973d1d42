// Inside the library: terminals behind C streams. A console of Windows has a code page, which programs share and which
// lacks most characters; so its text goes through functions that take and give UTF-16. On other systems a terminal
// reads and writes UTF-8 like any other file.
#pragma once

#include "qor/glue/c_stream.h"

#include <string_view>

class qorString;

namespace qor::stream {

// Writes valid UTF-8 to the terminal of the stream, behind what the stream still holds in its buffer. Returns false if
// not all of the text could be written; `failure` then gets the system's code.
bool write_to_terminal(IQORStreamSink& sink, int64 terminal, std::string_view text, int& failure) noexcept;

enum class line_end {
    use_stream, // nothing was read: the stream itself gives the line
    newline,    // the line is complete; a carriage return may be its last byte
    end_of_input,
    failed, // `failure` is the system's code
};

// Reads up to the end of a line, and appends the bytes before it with `append`. No copy of them stays in memory.
line_end read_terminal_line(IQORStreamSource& source, qorString& line,
                            void (*append)(qorString& line, const char* bytes, uint32 size) noexcept,
                            int& failure) noexcept;

} // namespace qor::stream
