#include "time/calendar.h"

namespace {

constexpr int64 days_per_100_years = 36'524;
constexpr int64 days_per_4_years = 1'461;

// The days before each month of a common year; the last entry is the length of the year.
constexpr int days_before_month[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365};

bool is_leap(int64 year) noexcept { return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0); }

// Months count from 0.
int first_day(int month, int64 year) noexcept {
    return days_before_month[month] + (month >= 2 && is_leap(year) ? 1 : 0);
}

} // namespace

void qor::time::set_date(int64 day, qorTimeInfo& info) noexcept {
    info.weekday = static_cast<uint8>(day % 7); // day 0 was a Monday
    int64 year = 1 + day / days_per_400_years * 400;
    int64 rest = day % days_per_400_years;
    // The last of the four centuries is a day longer than the others, and so is the last of four years.
    const int64 century = rest / days_per_100_years - rest / (4 * days_per_100_years);
    rest -= century * days_per_100_years;
    year += century * 100 + rest / days_per_4_years * 4;
    rest %= days_per_4_years;
    const int64 year_of_four = rest / 365 - rest / (4 * 365);
    rest -= year_of_four * 365;
    year += year_of_four;

    int month = 11;
    while (first_day(month, year) > rest)
        --month;
    info.year = static_cast<uint16>(year);
    info.month = static_cast<uint8>(month + 1);
    info.day = static_cast<uint8>(rest - first_day(month, year) + 1);
}

int64 qor::time::day_number(const qorTimeInfo& info) noexcept {
    const int month = info.month - 1;
    if (info.year == 0 || month < 0 || month > 11 || info.day == 0 ||
        info.day > first_day(month + 1, info.year) - first_day(month, info.year))
        return -1;
    const int64 years = info.year - 1;
    return years * 365 + years / 4 - years / 100 + years / 400 + days_before(info);
}

int qor::time::days_before(const qorTimeInfo& info) noexcept {
    return first_day(info.month - 1, info.year) + info.day - 1;
}

int32 qor::glue::qorGetDayOfWeek(const qorTimeInfo& info) noexcept {
    const int64 day = qor::time::day_number(info);
    return day < 0 ? -1 : static_cast<int32>(day % 7);
}
