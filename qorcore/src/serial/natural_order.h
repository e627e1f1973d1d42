// Inside the serial ports: the order of names that sorts 9 before 10.
#pragma once

#include <string_view>

namespace qor::serial {

// Runs of digits compare as numbers, everything else byte by byte. Different names never compare as equal.
bool comes_before(std::string_view left, std::string_view right) noexcept;

} // namespace qor::serial
