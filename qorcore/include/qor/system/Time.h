// Points in time and calendar time.
//
// A point in time ("clock") is an unsigned count of 100-nanosecond ticks, 10,000,000 per second, since the beginning of
// 1601 in UTC, on every platform. The last one lies in the year 60056. Leap seconds are not counted. Calendar time
// follows the Gregorian calendar, even before its introduction. docs/time.md has the details.
#pragma once

#include "qor/glue/binding.h"

// A tick is 100 nanoseconds.
inline constexpr uint64 qorTicksPerSecond = 10'000'000;

// A point in calendar time. Copied by value.
struct qorTimeInfo {
    uint16 year;      // the full year
    uint8 month;      // 1 to 12
    uint8 day;        // 1 to 31
    uint8 hour;       // 0 to 23
    uint8 minute;     // 0 to 59
    uint8 second;     // 0 to 59
    uint8 weekday;    // 0 is Monday, 6 is Sunday
    uint32 ticks;     // 100-nanosecond ticks within the second
    int32 utc_offset; // seconds by which this calendar time is ahead of UTC
};

// Converts a clock to calendar time, in UTC or in the local time zone (Linux: TZ, else the system's zone; Windows: the
// system's zone, by the rules of the year in question). Sets every field. Any thread.
inline void qorConvertTime(uint64 clock, bool local, qorTimeInfo& info) noexcept {
    qor::glue::qorConvertTime(clock, local, info);
}

// Converts a local calendar time to a clock. Uses the date, the time of day and the ticks; ignores weekday and
// utc_offset. A time that is skipped when the clocks go forward is read with the offset before the change. A time that
// occurs twice means the first occurrence. Returns 0 and sets the last error if the date or the time of day is invalid,
// or outside the range of clocks. Any thread.
inline uint64 qorConvertLocalTimeInfo(const qorTimeInfo& info) noexcept {
    return qor::glue::qorConvertLocalTimeInfo(info);
}

// The number of minutes by which local time is ahead of UTC now; east is positive. Fractions of a minute are dropped.
inline int32 qorGetTimeZoneOffset() noexcept { return qor::glue::qorGetTimeZoneOffset(); }

// The weekday of a date in the years 1 to 65535, from 0 (Monday) to 6 (Sunday). Negative if there is no such date. Uses
// only year, month and day; does not change the last error.
inline int32 qorGetDayOfWeek(const qorTimeInfo& info) noexcept { return qor::glue::qorGetDayOfWeek(info); }

// Formats a calendar time. These codes in the format are replaced, all other text is copied:
//
//   %Y year  %y its last two digits  %m month  %d day  %j day of the year (3 digits)
//   %H hour  %M minute  %S second  %f ticks within the second (7 digits)
//   %u weekday, 1 is Monday  %z offset from UTC: +0100, with seconds +013015  %F is %Y-%m-%d  %T is %H:%M:%S
//   %% is %
//
// Numbers have leading zeros: the year has at least 4 digits, %u has one, the others have at least 2. Every field is
// printed as it is, valid or not; %j and %u are computed from the date, and are 000 and 0 if there is no such date.
// Returns false (last error) if the format contains another code, which is copied unchanged. Any thread.
inline bool qorFormatTime(qorString& out, const char* format, const qorTimeInfo& info) noexcept {
    return qor::glue::qorFormatTime_info(out, format, info);
}

// The same for a clock, in local time or in UTC.
inline bool qorFormatTime(qorString& out, const char* format, uint64 clock, bool local) noexcept {
    return qor::glue::qorFormatTime_clock(out, format, clock, local);
}

// The current time. It jumps when the system's clock is set.
inline uint64 qorGetSystemTime() noexcept { return qor::glue::qorGetSystemTime(); }

// A monotonic clock for measuring durations, in the same ticks, at a steady rate and from an arbitrary origin. It does
// not count while the machine sleeps. Any thread.
inline uint64 qorGetTickCounter() noexcept { return qor::glue::qorGetTickCounter(); }

// Waits for at least this many milliseconds by the tick counter, regardless of signals that the process handles.
inline void qorSleep(uint32 ms) noexcept { qor::glue::qorSleep(ms); }
