// Inside the library: the Gregorian calendar. Days count from 1 January of the year 1.
#pragma once

#include "qor/qor.h"

namespace qor::time {

inline constexpr int64 days_per_400_years = 146'097;
inline constexpr int64 seconds_per_day = 86'400;

// Sets the date and the weekday for the day with this number; the number must not be negative.
void set_date(int64 day, qorTimeInfo& info) noexcept;

// Returns the number of a day; negative if the date does not exist.
int64 day_number(const qorTimeInfo& info) noexcept;

// Returns the number of days in the year before the date.
int days_before(const qorTimeInfo& info) noexcept;

} // namespace qor::time
