#include "qor/qor.h"

#include <gtest/gtest.h>

#include <random>
#include <windows.h>

namespace {

// For a year with the current rules, the system's plain conversion gives the same result.
TEST(convert_time_zones, local_time_is_the_systems) {
    SYSTEMTIME now;
    GetSystemTime(&now);
    SYSTEMTIME new_year = {};
    new_year.wYear = now.wYear;
    new_year.wMonth = 1;
    new_year.wDay = 3;
    FILETIME begin;
    ASSERT_TRUE(SystemTimeToFileTime(&new_year, &begin));
    const uint64 first = uint64{begin.dwHighDateTime} << 32 | begin.dwLowDateTime;
    std::mt19937_64 random(12);
    for (int i = 0; i < 5000; ++i) {
        const uint64 clock = first + random() % (360 * 86'400 * qorTicksPerSecond);
        const FILETIME ticks = {static_cast<DWORD>(clock), static_cast<DWORD>(clock >> 32)};
        SYSTEMTIME utc, expected;
        ASSERT_TRUE(FileTimeToSystemTime(&ticks, &utc));
        ASSERT_TRUE(SystemTimeToTzSpecificLocalTime(nullptr, &utc, &expected));
        qorTimeInfo info;
        qorConvertTime(clock, true, info);
        ASSERT_EQ(info.year, expected.wYear);
        ASSERT_EQ(info.month, expected.wMonth);
        ASSERT_EQ(info.day, expected.wDay);
        ASSERT_EQ(info.hour, expected.wHour);
        ASSERT_EQ(info.minute, expected.wMinute);
        ASSERT_EQ(info.second, expected.wSecond);
        ASSERT_EQ(info.ticks / 10'000, expected.wMilliseconds);
    }
}

// The system counts only to the year 30827; the calendar repeats every 400 years.
TEST(convert_time_zones, times_that_the_system_does_not_know_have_the_rules_of_others_like_them) {
    constexpr uint64 four_centuries = 146'097ull * 86'400 * qorTicksPerSecond;
    const auto offset = [](uint64 clock) {
        qorTimeInfo info;
        qorConvertTime(clock, true, info);
        return info.utc_offset;
    };
    std::mt19937_64 random(13);
    for (int i = 0; i < 5000; ++i) {
        const uint64 clock = random() % four_centuries + 69 * four_centuries;
        ASSERT_EQ(offset(clock), offset(clock + four_centuries));
        ASSERT_EQ(offset(clock), offset(clock + 50 * four_centuries));
    }
    EXPECT_EQ(offset(0), offset(four_centuries));
}

} // namespace
