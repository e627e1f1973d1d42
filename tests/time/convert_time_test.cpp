#include "qor/qor.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <random>

namespace {

constexpr uint64 day = 86'400 * qorTicksPerSecond;

qorTimeInfo utc(uint64 clock) {
    qorTimeInfo info;
    std::memset(&info, 0xee, sizeof info); // every field must be set
    qorConvertTime(clock, false, info);
    return info;
}

// A calendar that advances day by day.
struct leaves {
    unsigned year = 1601, month = 1, day = 1, weekday = 0; // a Monday

    void next() {
        static constexpr unsigned lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
        const bool leap_day = month == 2 && year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
        weekday = (weekday + 1) % 7;
        if (++day <= lengths[month - 1] + leap_day)
            return;
        day = 1;
        if (++month <= 12)
            return;
        month = 1;
        ++year;
    }

    bool is_date_of(const qorTimeInfo& info) const {
        return info.year == year && info.month == month && info.day == day && info.weekday == weekday;
    }
};

TEST(convert_time, every_day_there_is) {
    leaves model;
    for (uint64 number = 0; number <= ~0ull / day; ++number, model.next())
        ASSERT_TRUE(model.is_date_of(utc(number * day + number % day)))
            << model.year << " " << model.month << " " << model.day;
    EXPECT_EQ(model.year, 60056u); // the largest year of a 64-bit count
}

TEST(convert_time, every_second_of_a_day) {
    for (uint64 second = 0; second < 86'400; ++second)
        for (const uint64 ticks : {uint64{0}, qorTicksPerSecond - 1}) {
            const qorTimeInfo info = utc(149'000 * day + second * qorTicksPerSecond + ticks);
            ASSERT_EQ(info.hour * 3600u + info.minute * 60u + info.second, second);
            ASSERT_LT(info.minute, 60);
            ASSERT_LT(info.second, 60);
            ASSERT_EQ(info.ticks, ticks);
            ASSERT_EQ(info.utc_offset, 0);
        }
}

TEST(convert_time, the_first_tick_and_the_last) {
    const qorTimeInfo first = utc(0);
    EXPECT_EQ(first.year, 1601);
    EXPECT_EQ(first.month, 1);
    EXPECT_EQ(first.day, 1);
    EXPECT_EQ(first.hour + first.minute + first.second, 0);
    EXPECT_EQ(first.ticks, 0u);
    const qorTimeInfo last = utc(~0ull);
    EXPECT_EQ(last.year, 60056);
    EXPECT_EQ(last.month, 5);
    EXPECT_EQ(last.day, 28);
    EXPECT_EQ(last.hour, 5);
    EXPECT_EQ(last.minute, 36);
    EXPECT_EQ(last.second, 10);
    EXPECT_EQ(last.ticks, 9'551'615u);
}

// Compares with the C++ library's calendar, in its range.
TEST(convert_time, is_the_librarys_calendar) {
    using namespace std::chrono;
    constexpr sys_days begin = 1601y / January / 1;
    std::mt19937_64 random(10);
    for (int i = 0; i < 200'000; ++i) {
        const uint64 clock = random() % (31'000ull * 365 * day);
        const sys_days date = begin + days(clock / day);
        const year_month_day expected = date;
        const qorTimeInfo info = utc(clock);
        ASSERT_EQ(info.year, int(expected.year()));
        ASSERT_EQ(info.month, unsigned(expected.month()));
        ASSERT_EQ(info.day, unsigned(expected.day()));
        ASSERT_EQ(info.weekday, weekday(date).iso_encoding() - 1);
    }
}

// In any zone: local time is UTC plus the offset that is returned.
TEST(convert_time, local_time_is_utc_and_its_offset) {
    std::mt19937_64 random(11);
    for (int i = 0; i < 20'000; ++i) {
        const uint64 clock = random() % (~0ull - 2 * day) + day;
        qorTimeInfo local;
        std::memset(&local, 0xee, sizeof local);
        qorConvertTime(clock, true, local);
        ASSERT_LT(std::abs(local.utc_offset), 86'400);
        qorTimeInfo shifted =
            utc(clock + static_cast<uint64>(local.utc_offset * static_cast<int64>(qorTicksPerSecond)));
        shifted.utc_offset = local.utc_offset;
        ASSERT_EQ(std::memcmp(&local, &shifted, sizeof local), 0) << clock;
    }
}

} // namespace
