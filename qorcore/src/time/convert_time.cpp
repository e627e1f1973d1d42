// Conversion between clocks and calendar time.
#include "error/error.h"
#include "time/calendar.h"
#include "time/local_offset.h"

#include <algorithm>

namespace {

using qor::time::seconds_per_day;

// The days from 1 January of the year 1 to 1 January 1601.
constexpr int64 first_clock_day = 4 * qor::time::days_per_400_years;
constexpr int64 last_second = static_cast<int64>(~uint64{0} / qorTicksPerSecond);

// Returns the clock at this second. Clamps seconds outside the range of the clock.
uint64 counted_clock(int64 second) noexcept {
    return static_cast<uint64>(std::clamp(second, int64{0}, last_second)) * qorTicksPerSecond;
}

int64 offset_at(int64 second) noexcept { return qor::time::local_offset(counted_clock(second)); }

// Returns the first second in (second, later] whose offset differs from that of `second`. The offset of `later` must
// differ.
int64 find_change(int64 second, int64 later) noexcept {
    const int64 before = offset_at(second);
    while (later - second > 1) {
        const int64 middle = second + (later - second) / 2;
        (offset_at(middle) == before ? second : later) = middle;
    }
    return later;
}

// Returns the second of UTC at which local clocks show `local`. Both count from 1601.
//
// A zone is at most 25 hours ahead of UTC or behind it, so the second lies within 25 hours of `local`. The offset may
// change several times in this span. The loop visits the changes in order, so the first of two possible seconds is
// returned if a local time occurs twice. For a local time that is skipped, the offset before the change counts.
int64 to_utc(int64 local) noexcept {
    constexpr int64 margin = 25 * 3600;
    int64 second = local - margin;
    int64 offset = offset_at(second);
    int64 skipped = local - offset;
    bool is_skipped = false;
    while (second < local + margin) {
        int64 next = second + qor::time::shortest_period;
        const bool changes = offset_at(next) != offset;
        if (changes)
            next = find_change(second, next);
        if (local - offset >= second && local - offset < next)
            return local - offset;
        second = next;
        if (changes) {
            const int64 before = offset;
            offset = offset_at(second);
            if (!is_skipped && second + before <= local && local < second + offset) {
                skipped = local - before;
                is_skipped = true;
            }
        }
    }
    return skipped;
}

} // namespace

void qor::glue::qorConvertTime(uint64 clock, bool local, qorTimeInfo& info) noexcept {
    info.utc_offset = 0;
    if (local) {
        qor::time::look_at_zone(clock);
        info.utc_offset = qor::time::local_offset(clock);
    }
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
    if (day >= 0 && info.hour < 24 && info.minute < 60 && info.second < 60 && info.ticks < qorTicksPerSecond) {
        const int64 local =
            (day - first_clock_day) * seconds_per_day + info.hour * 3600 + info.minute * 60 + info.second;
        qor::time::look_at_zone(counted_clock(local));
        const int64 second = to_utc(local);
        const uint64 clock = static_cast<uint64>(second) * qorTicksPerSecond + info.ticks;
        // The clock's range ends within its last second.
        if (second >= 0 && clock / qorTicksPerSecond == static_cast<uint64>(second))
            return clock;
    }
    qor::error::set(qorError_no_such_time);
    return 0;
}

int32 qor::glue::qorGetTimeZoneOffset() noexcept {
    const uint64 now = qorGetSystemTime();
    time::look_at_zone(now);
    return time::local_offset(now) / 60;
}
