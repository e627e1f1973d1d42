// Inside the library: the seam to the system's time zones.
#pragma once

#include "qor/qor.h"

namespace qor::time {

// The first second of 1970, counted in seconds from the beginning of 1601.
inline constexpr int64 seconds_to_1970 = 11'644'473'600;

// How many seconds local time is ahead of UTC at this clock; 0 where the system cannot tell. May be called on
// any thread; a change of the zone counts from the next call on.
int32 local_offset(uint64 clock) noexcept;

} // namespace qor::time
