// Nanoseconds of the clocks.
#pragma once

#include <cstdint>

namespace qor::record {

std::uint64_t steady_time();
std::uint64_t time_since_1970();

} // namespace qor::record
