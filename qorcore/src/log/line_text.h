// Inside the log: entries as lines of text.
#pragma once

#include "log/log.h"

#include <string>
#include <string_view>

namespace qor::log {

// "emergency" to "debug"
std::string_view level_name(qorLogLevel level) noexcept;

// Appends a text so that it stays within one line: control characters, bytes that are no UTF-8 and characters that
// change the direction of text become `\n`, `\t`, `\r` or `\x1b` and the like. Those of `special`, ASCII characters,
// become `\x20` and the like.
void append_line_text(std::string& line, std::string_view text, std::string_view special = {});

// Whether the text is ASCII that append_line_text leaves alone; a word has no blanks, either.
bool is_line_text(std::string_view text) noexcept;
bool is_line_word(std::string_view text) noexcept;

// Appends ` NAME="value"` for each field; '"' and '\' have a '\' before them.
void append_fields(std::string& line, const std::vector<field>& fields);

// Returns the last part of a path.
std::string_view base_name(const char* path) noexcept;

// Cuts a UTF-8 text to at most `size` bytes between two characters.
std::string_view cut_text(std::string_view text, std::size_t size) noexcept;

} // namespace qor::log
