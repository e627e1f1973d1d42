// Inside the library: the seam to the system's time zones.
#pragma once

#include "qor/qor.h"

namespace qor::time {

// 1 January 1970, in seconds since the beginning of 1601.
inline constexpr int64 seconds_to_1970 = 11'644'473'600;

// Every conversion starts with this call, because the zone may have changed since the last one. If the system does not
// know the zone, sets the last error; its text names the offset at this clock that the system uses instead.
void look_at_zone(uint64 clock) noexcept;

// Returns how many seconds local time is ahead of UTC at this clock, in the zone of the last look_at_zone(); 0 if the
// system cannot tell. Thread-safe.
int32 local_offset(uint64 clock) noexcept;

// The time, in seconds, for which every zone of this system keeps an offset at least. Shorter periods may be missed.
extern const int64 shortest_period;

} // namespace qor::time
