// Texts for the user: messages as strings, and numbers.
#pragma once

#include "qor/system/Types.h"

#include <initializer_list>
#include <string>
#include <string_view>

namespace qor::heap_tool {

// A message of the program with its inserts.
std::string text_of(uint32 number, std::initializer_list<std::string> inserts = {});

// "qor-heap: TEXT" on standard error, as a line of its own.
void say(uint32 number, std::initializer_list<std::string> inserts = {});

std::string fixed(double number, int digits);
std::string percent(uint64 part, uint64 whole); // "12.3%"; "-" without a whole

// "1.5 MiB"; the exact number below 1,024.
std::string readable_bytes(uint64 bytes);
std::string seconds(uint64 nanoseconds); // "1.234 s"

// Right-aligned; the width counts characters.
std::string padded(std::string_view text, std::size_t width);
std::size_t width_of(std::string_view text) noexcept;

} // namespace qor::heap_tool
