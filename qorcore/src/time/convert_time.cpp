// Calendar time of a clock, and the other way round.
#include "error/error.h"
#include "time/calendar.h"
#include "time/local_offset.h"

namespace {

using qor::time::seconds_per_day;

// From the first day of the year 1 to that of 1601.
constexpr int64 first_clock_day = 4 * qor::time::days_per_400_years;
constexpr int64 last_second = static_cast<int64>(~uint64{0} / qorTicksPerSecond);

// What lies behind either end of the count has the offset of that end.
int64 offset_at(int64 second) noexcept {
    const int64 counted = second < 0 ? 0 : second > last_second ? last_second : second;
    return qor::time::local_offset(static_cast<uint64>(counted) * qorTicksPerSecond);
}

// The second of UTC at which local clocks show `local`. Both count from 1601.
//
// No zone is a day and an hour ahead or behind, and none changes its offset twice within the days between the
// two samples; so the offset is one of these two.
int64 to_utc(int64 local) noexcept {
    constexpr int64 margin = 25 * 3600;
    const int64 before = offset_at(local - margin);
    const int64 after = offset_at(local + margin);
    // The offset before the change is tried first: of a time that comes twice, it gives the first.
    for (const int64 offset : {before, after})
        if (offset_at(local - offset) == offset)
            return local - offset;
    return local - before; // skipped
}

} // namespace

void qor::glue::qorConvertTime(uint64 clock, bool local, qorTimeInfo& info) noexcept {
    info.utc_offset = local ? qor::time::local_offset(clock) : 0;
    info.ticks = static_cast<uint32>(clock % qorTicksPerSecond);
    const int64 seconds =
        static_cast<int64>(clock / qorTicksPerSecond) + info.utc_offset + first_clock_day * seconds_per_day;
    qor::time::set_date(seconds / seconds_per_day, info);
    const int64 second_of_day = seconds % seconds_per_day;
    info.hour = static_cast<uint8>(second_of_day / 3600);
    info.minute = static_cast<uint8>(second_of_day / 60 % 60);
    info.second = static_cast<uint8>(second_of_day % 60);
}

uint64 qor::glue::qorConvertLocalTimeInfo(const qorTimeInfo& info) noexcept {
    const int64 day = qor::time::day_number(info);
    if (day >= 0 && info.hour < 24 && info.minute < 60 && info.second < 60 &&
        info.ticks < qorTicksPerSecond) {
        const int64 local =
            (day - first_clock_day) * seconds_per_day + info.hour * 3600 + info.minute * 60 + info.second;
        const int64 second = to_utc(local);
        const uint64 clock = static_cast<uint64>(second) * qorTicksPerSecond + info.ticks;
        // The last second of the count is not a whole one.
        if (second >= 0 && clock / qorTicksPerSecond == static_cast<uint64>(second))
            return clock;
    }
    qor::error::set(qorError_no_such_time);
    return 0;
}

int32 qor::glue::qorGetTimeZoneOffset() noexcept { return qor::time::local_offset(qorGetSystemTime()); }
