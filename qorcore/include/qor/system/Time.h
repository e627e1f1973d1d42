// Points in time and calendar time.
//
// A point in time ("clock") is an unsigned count of 100-nanosecond ticks, 10,000,000 a second, since the
// beginning of 1601 in UTC, on every platform: the last one lies in the year 60056. Leap seconds do not
// count. Calendar time is that of the Gregorian calendar, also before it was introduced. docs/time.md tells
// more.
#pragma once

#include "qor/glue/binding.h"

// A tick is 100 nanoseconds.
inline constexpr uint64 qorTicksPerSecond = 10'000'000;

// A moment in calendar time. Copied by value.
struct qorTimeInfo {
    uint16 year;      // with all its digits
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

// The clock of a local calendar time: date, time of day and ticks count; weekday and utc_offset are not
// looked at. A time that the zone's clocks skip is taken as if they had not been put forward yet; of one that
// they show twice, the first is meant. What is no date or no time of day, or lies before the count begins or
// after it ends, gives 0 and the last error. Any thread.
inline uint64 qorConvertLocalTimeInfo(const qorTimeInfo& info) noexcept {
    return qor::glue::qorConvertLocalTimeInfo(info);
}

// How many minutes local time is ahead of UTC now, east being positive; a part of a minute is left out.
inline int32 qorGetTimeZoneOffset() noexcept { return qor::glue::qorGetTimeZoneOffset(); }

// The weekday of a date, 0 for Monday to 6 for Sunday, of the years 1 to 65535. Negative: there is no such
// date. Only year, month and day are looked at; the last error stays as it is.
inline int32 qorGetDayOfWeek(const qorTimeInfo& info) noexcept { return qor::glue::qorGetDayOfWeek(info); }

// Calendar time as text, by a format in which each code of these stands for a part of it, and all else for
// itself:
//
//   %Y year  %y its last two digits  %m month  %d day  %j day of the year (3 digits)
//   %H hour  %M minute  %S second  %f ticks within the second (7 digits)
//   %u weekday, 1 is Monday  %z offset from UTC: +0100, with seconds +013015  %F is %Y-%m-%d  %T is %H:%M:%S
//   %% is %
//
// Numbers have leading zeros: the year 4 digits at least, the others 2, but for %u one. Every field is
// printed as it stands, whether it is a time or not; %j and %u follow from the date, and are 000 and 0 where
// there is no such date. False: the format has another code, which is kept as it stands (last error). Any
// thread.
inline bool qorFormatTime(qorString& out, const char* format, const qorTimeInfo& info) noexcept {
    return qor::glue::qorFormatTime_info(out, format, info);
}

// The same of a clock, in local time or in UTC.
inline bool qorFormatTime(qorString& out, const char* format, uint64 clock, bool local) noexcept {
    return qor::glue::qorFormatTime_clock(out, format, clock, local);
}

// The system's clock. It jumps when somebody sets it.
inline uint64 qorGetSystemTime() noexcept { return qor::glue::qorGetSystemTime(); }

// A clock that only goes forward, at an even pace, from an origin of its own: for measuring how long
// something takes, in the same ticks. It does not count while the machine sleeps. Any thread may read it.
inline uint64 qorGetTickCounter() noexcept { return qor::glue::qorGetTickCounter(); }

// Waits for at least so many milliseconds by the tick counter, through whatever signals the process handles.
inline void qorSleep(uint32 ms) noexcept { qor::glue::qorSleep(ms); }
