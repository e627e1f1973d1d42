// Inside the library: the seam to the system's time zones.
#pragma once

#include "qor/qor.h"

namespace qor::time {

// The first second of 1970, counted in seconds from the beginning of 1601.
inline constexpr int64 seconds_to_1970 = 11'644'473'600;

// Every conversion begins with this look at the zone's name, which may have changed since the last one. Sets the last
// error where the system does not know the zone; the text says what the system uses instead at this clock.
void look_at_zone(uint64 clock) noexcept;

// How many seconds local time is ahead of UTC at this clock, in the zone of the last look; 0 where the system cannot
// tell. Any thread.
int32 local_offset(uint64 clock) noexcept;

// The number of seconds for which every zone of this system keeps an offset at least. Shorter periods may be missed.
extern const int64 shortest_period;

} // namespace qor::time
