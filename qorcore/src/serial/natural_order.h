// Inside the serial ports: the order of names in which 9 comes before 10.
#pragma once

#include <string_view>

namespace qor::serial {

// Runs of digits compare as numbers, all else byte by byte. Different names are never equal.
bool comes_before(std::string_view left, std::string_view right) noexcept;

} // namespace qor::serial
