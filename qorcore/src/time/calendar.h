// Inside the library: the Gregorian calendar, by days counted from the first of January of the year 1.
#pragma once

#include "qor/qor.h"

namespace qor::time {

inline constexpr int64 days_per_400_years = 146'097;
inline constexpr int64 seconds_per_day = 86'400;

// The day with this number, of the year 1 or later; weekday included.
void set_date(int64 day, qorTimeInfo& info) noexcept;

// The number of a day; negative where there is no such date.
int64 day_number(const qorTimeInfo& info) noexcept;

// The days of its year that come before a date.
int days_before(const qorTimeInfo& info) noexcept;

} // namespace qor::time
