// Calendar time of a clock.
#include "time/local_offset.h"

namespace {

constexpr int64 seconds_per_day = 86'400;
constexpr int64 days_per_400_years = 146'097;
constexpr int64 days_per_100_years = 36'524;
constexpr int64 days_per_4_years = 1'461;

// The days that come before each month of a common year.
constexpr int days_before_month[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};

// The date so many days after the first of 1201, a year that begins four centuries, on a Monday.
void set_date(int64 days, qorTimeInfo& info) noexcept {
    info.weekday = static_cast<uint8>(days % 7);
    int64 year = 1201 + days / days_per_400_years * 400;
    int64 rest = days % days_per_400_years;
    // The last of the four centuries is a day longer than the others, and so is the last of four years.
    const int64 century = rest / days_per_100_years - rest / (4 * days_per_100_years);
    rest -= century * days_per_100_years;
    year += century * 100 + rest / days_per_4_years * 4;
    rest %= days_per_4_years;
    const int64 year_of_four = rest / 365 - rest / (4 * 365);
    rest -= year_of_four * 365;
    year += year_of_four;

    const bool is_leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    int month = 11;
    const auto first_day = [is_leap](int of) { return days_before_month[of] + (is_leap && of >= 2 ? 1 : 0); };
    while (first_day(month) > rest)
        --month;
    info.year = static_cast<uint16>(year);
    info.month = static_cast<uint8>(month + 1);
    info.day = static_cast<uint8>(rest - first_day(month) + 1);
}

} // namespace

void qor::glue::qorConvertTime(uint64 clock, bool local, qorTimeInfo& info) noexcept {
    info.utc_offset = local ? qor::time::local_offset(clock) : 0;
    info.ticks = static_cast<uint32>(clock % qorTicksPerSecond);
    // Counted from 400 years earlier, because a zone may be behind the first day.
    const int64 seconds = static_cast<int64>(clock / qorTicksPerSecond) + info.utc_offset +
                          days_per_400_years * seconds_per_day;
    set_date(seconds / seconds_per_day, info);
    const int64 second_of_day = seconds % seconds_per_day;
    info.hour = static_cast<uint8>(second_of_day / 3600);
    info.minute = static_cast<uint8>(second_of_day / 60 % 60);
    info.second = static_cast<uint8>(second_of_day % 60);
}
