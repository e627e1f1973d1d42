#include "time/local_offset.h"

#include <windows.h>

namespace {

// The system converts only times between these two, and the local time must lie there too. For other times, use a year
// with the same calendar: the calendar repeats every 400 years.
constexpr uint64 day = 86'400 * qorTicksPerSecond;
constexpr uint64 four_centuries = 146'097 * day;
constexpr uint64 first = day;
constexpr uint64 last = 70 * four_centuries;

FILETIME file_time(uint64 ticks) { return {static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)}; }

int64 ticks_of(const FILETIME& time) {
    return static_cast<int64>(uint64{time.dwHighDateTime} << 32 | time.dwLowDateTime);
}

} // namespace

// The rules of a year have two changes, which are days apart.
const int64 qor::time::shortest_period = 25 * 3600;

// The zone is a setting of Windows, which always knows it.
void qor::time::look_at_zone(uint64) noexcept {}

int32 qor::time::local_offset(uint64 clock) noexcept {
    if (clock < first)
        clock += four_centuries;
    if (clock >= last)
        clock = last - four_centuries + (clock - last) % four_centuries;

    // The system's calendar times have milliseconds only, so drop the part below a second.
    const FILETIME utc_ticks = file_time(clock - clock % qorTicksPerSecond);
    SYSTEMTIME utc, local;
    TIME_ZONE_INFORMATION rules;
    FILETIME local_ticks;
    // Without the year, the system would apply the current rules to all times.
    if (!FileTimeToSystemTime(&utc_ticks, &utc) || !GetTimeZoneInformationForYear(utc.wYear, nullptr, &rules) ||
        !SystemTimeToTzSpecificLocalTime(&rules, &utc, &local) || !SystemTimeToFileTime(&local, &local_ticks))
        return 0;
    return static_cast<int32>((ticks_of(local_ticks) - ticks_of(utc_ticks)) / static_cast<int64>(qorTicksPerSecond));
}
