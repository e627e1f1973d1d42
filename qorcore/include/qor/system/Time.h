// Points in time and calendar time.
//
// A point in time ("clock") is an unsigned count of 100-nanosecond ticks, 10,000,000 a second, since the
// beginning of 1601 in UTC, on every platform: the last one lies in the year 60056. Leap seconds do not
// count. Calendar time is that of the Gregorian calendar, also before it was introduced.
#pragma once

#include "qor/glue/binding.h"

inline constexpr uint64 qorTicksPerSecond = 10'000'000;

struct qorTimeInfo {
    uint16 year;
    uint8 month;      // 1 to 12
    uint8 day;        // 1 to 31
    uint8 hour;       // 0 to 23
    uint8 minute;     // 0 to 59
    uint8 second;     // 0 to 59
    uint8 weekday;    // 0 is Monday, 6 is Sunday
    uint32 ticks;     // within the second, of 100 nanoseconds
    int32 utc_offset; // seconds that this calendar time is ahead of UTC
};

// The calendar time of a clock, in UTC or in the local time zone (Linux: TZ, else the system's; Windows: the
// system's, by the rules of the year in question). Sets every field. May be called on any thread.
inline void qorConvertTime(uint64 clock, bool local, qorTimeInfo& info) noexcept {
    qor::glue::qorConvertTime(clock, local, info);
}

// A clock that only goes forward, at an even pace, from an origin of its own: for measuring how long
// something takes, in the same ticks. It does not count while the machine sleeps. Any thread may read it.
inline uint64 qorGetTickCounter() noexcept { return qor::glue::qorGetTickCounter(); }
