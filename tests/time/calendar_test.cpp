#include "qor/qor.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <random>
#include <string>

namespace {

qorTimeInfo date(uint16 year, unsigned month, unsigned day) {
    qorTimeInfo info{};
    info.year = year;
    info.month = static_cast<uint8>(month);
    info.day = static_cast<uint8>(day);
    return info;
}

std::string formatted(const char* format, const qorTimeInfo& info) {
    qorString text("not empty");
    EXPECT_TRUE(qorFormatTime(text, format, info));
    return text.Text();
}

// Compares with the C++ library's calendar, in its range; every byte is tried as month and as day.
TEST(day_of_week, is_the_librarys_calendar) {
    using namespace std::chrono;
    for (const int y : {1, 4, 100, 400, 1582, 1600, 1900, 2000, 2023, 2024, 9999, 32767})
        for (unsigned m = 0; m < 256; ++m)
            for (unsigned d = 0; d < 256; ++d) {
                const year_month_day expected = year(y) / month(m) / day(d);
                const int32 weekday_number = qorGetDayOfWeek(date(static_cast<uint16>(y), m, d));
                if (expected.ok())
                    ASSERT_EQ(weekday_number, weekday(expected).iso_encoding() - 1) << y << " " << m << " " << d;
                else
                    ASSERT_LT(weekday_number, 0) << y << " " << m << " " << d;
            }
}

TEST(day_of_week, there_is_no_year0_and_the_last_is65535) {
    EXPECT_LT(qorGetDayOfWeek(date(0, 1, 1)), 0);
    EXPECT_EQ(qorGetDayOfWeek(date(1, 1, 1)), 0);
    // 400 years have a whole number of weeks, so 65535 is like 1935.
    EXPECT_EQ(qorGetDayOfWeek(date(65535, 12, 31)), qorGetDayOfWeek(date(1935, 12, 31)));
    EXPECT_LT(qorGetDayOfWeek(date(65535, 2, 29)), 0);
    EXPECT_EQ(qorGetDayOfWeek(date(65532, 2, 29)), qorGetDayOfWeek(date(1932, 2, 29)));
}

// Converts in both directions between clock and date.
TEST(day_of_week, is_the_weekday_of_the_clock) {
    std::mt19937_64 random(20);
    for (int i = 0; i < 100'000; ++i) {
        qorTimeInfo info;
        qorConvertTime(random(), false, info);
        ASSERT_EQ(qorGetDayOfWeek(info), info.weekday) << info.year << " " << info.month << " " << info.day;
    }
}

// Compares with the C library's formatting, for formats that do not depend on the locale.
TEST(format_time, says_what_the_c_library_says) {
    static constexpr char format[] = "%%%d/%m/%y @ %H:%M:%S|%Y %j|%F %T %z%%|%u";
    constexpr uint64 begin_of_1900 = 9'435'484'800 * qorTicksPerSecond; // some C libraries cannot format older years
    std::mt19937_64 random(21);
    for (int i = 0; i < 20'000; ++i) {
        const uint64 clock = begin_of_1900 + random() % (250'000'000'000 * qorTicksPerSecond);
        qorTimeInfo info;
        qorConvertTime(clock, false, info);
        std::tm same{};
        same.tm_year = info.year - 1900;
        same.tm_mon = info.month - 1;
        same.tm_mday = info.day;
        same.tm_hour = info.hour;
        same.tm_min = info.minute;
        same.tm_sec = info.second;
        same.tm_wday = (info.weekday + 1) % 7;
        for (qorTimeInfo before = date(info.year, 1, 1); before.month < info.month; ++before.month)
            for (before.day = 1; qorGetDayOfWeek(before) >= 0; ++before.day)
                ++same.tm_yday;
        same.tm_yday += info.day - 1;
        char expected[200];
        // The C library of Windows lacks some of our formats.
        static constexpr char known[] = "%%%d/%m/%y @ %H:%M:%S|%Y %j|%Y-%m-%d %H:%M:%S +0000%%|";
        const std::size_t length = std::strftime(expected, sizeof expected, known, &same);
        ASSERT_NE(length, 0u);
        expected[length] = static_cast<char>('1' + info.weekday);
        expected[length + 1] = '\0';
        qorString text;
        ASSERT_TRUE(qorFormatTime(text, format, clock, false));
        ASSERT_STREQ(text, expected);
        ASSERT_EQ(formatted(format, info), expected);
    }
}

TEST(format_time, ticks_and_offsets) {
    qorTimeInfo info = date(7, 1, 2);
    info.ticks = 1234;
    EXPECT_EQ(formatted("%Y %f %z", info), "0007 0001234 +0000");
    info.year = 65535;
    info.ticks = 9'999'999;
    info.utc_offset = -(3 * 3600 + 30 * 60 + 15);
    EXPECT_EQ(formatted("%Y %f %z", info), "65535 9999999 -033015");
    info.utc_offset = 45 * 60;
    EXPECT_EQ(formatted("%z", info), "+0045");
}

TEST(format_time, fields_are_not_judged) {
    const qorTimeInfo none{};
    EXPECT_EQ(formatted("%F %T %j %u", none), "0000-00-00 00:00:00 000 0");
    const qorTimeInfo wild{9999, 99, 255, 200, 100, 61, 9, ~0u, 0};
    EXPECT_EQ(formatted("%d.%m.%Y %H:%M:%S %f %j", wild), "255.99.9999 200:100:61 4294967295 000");
}

TEST(format_time, an_unknown_code_stays_and_is_told) {
    const qorTimeInfo info = date(2021, 3, 28);
    const struct {
        const char* format;
        const char* expected;
        const char* place;
    } cases[] = {{"%d %q %m", "28 %q 03", "byte 3"},
                 {"%", "%", "byte 0"},
                 {"%%%", "%%", "byte 2"},
                 {"%E%d%", "%E28%", "byte 0"},
                 {"%5d", "%5d", "byte 0"}};
    for (const auto& each : cases) {
        qorClearLastError();
        qorString text;
        EXPECT_FALSE(qorFormatTime(text, each.format, info));
        EXPECT_STREQ(text, each.expected);
        qorString message;
        EXPECT_EQ(qorGetLastError(message), uint32{qorError_bad_time_format});
        EXPECT_GE(message.FindString(each.place), 0) << message.Text();
    }
}

TEST(format_time, the_format_may_lie_in_the_result) {
    qorString text("%d-%%");
    EXPECT_TRUE(qorFormatTime(text, text, date(2021, 3, 28)));
    EXPECT_STREQ(text, "28-%");
    EXPECT_TRUE(qorFormatTime(text, "", date(2021, 3, 28)));
    EXPECT_STREQ(text, "");
}

} // namespace
