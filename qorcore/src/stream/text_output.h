// Inside the library: output of text to a C stream, mostly one of a client (qor/glue/c_stream.h). A terminal obeys
// control sequences in a text, and texts come from untrusted sources: the names of files and devices, logs, other
// hosts. So text for a terminal has all control characters made visible; text for a file or a pipe stays unchanged.
#pragma once

#include "qor/glue/c_stream.h"
#include "string/working_memory.h"

#include <cstdio>
#include <string_view>

namespace qor::stream {

// Returns the text in its form for a terminal. An escape such as `\x1b` replaces each byte of invalid UTF-8, of control
// characters except newline and tab (including those from U+0080), and of characters that change the direction of the
// following text (U+202A to U+202E, U+2066 to U+2069). Marks that affect only their neighbours stay, because Hebrew and
// Arabic need them. The result lies in `memory`, or is `text` itself if nothing was replaced.
std::string_view visible(std::string_view text, string::working_memory& memory) noexcept;

// Writes in one call, so that lines of several threads do not mix. Returns false if not all of the text could be
// written; `failure` then gets the system's code.
bool write_text(IQORStreamSink& sink, std::string_view text, int& failure) noexcept;
bool write_text(IQORStreamSink& sink, std::string_view text) noexcept;

// Writes the text as it is.
bool write_bytes(IQORStreamSink& sink, std::string_view text, int& failure) noexcept;

// Writes text to a stream of the library's own C run-time. Flushes no other stream: for callers that must not wait for
// one.
bool write_this_text_only(std::FILE* stream, std::string_view text) noexcept;

} // namespace qor::stream
