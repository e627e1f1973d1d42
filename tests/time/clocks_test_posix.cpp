#include "qor/qor.h"
#include "time/zone_name.h"
#include "zone.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <string>
#include <sys/time.h>
#include <utility>

namespace {

using qor::test::zone;

std::atomic<int> interruptions;

uint32 last_error(qorString& text) { return qorGetLastError(text); }

TEST(sleep, goes_on_after_signals) {
    struct sigaction handled {};
    struct sigaction before;
    handled.sa_handler = [](int) { ++interruptions; }; // without SA_RESTART
    sigaction(SIGALRM, &handled, &before);
    const itimerval often = {{0, 3000}, {0, 3000}};
    itimerval timer_before;
    interruptions = 0;
    setitimer(ITIMER_REAL, &often, &timer_before);
    const uint64 begin = qorGetTickCounter();
    qorSleep(60);
    const uint64 taken = qorGetTickCounter() - begin;
    setitimer(ITIMER_REAL, &timer_before, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_GE(taken, 600'000u);
    EXPECT_GT(interruptions, 0);
}

TEST(convert_local_time_info, the_first_tick_and_the_last) {
    const zone set("UTC0");
    EXPECT_EQ(qorConvertLocalTimeInfo({1601, 1, 1, 0, 0, 0, 0, 1, 0}), 1u);
    EXPECT_EQ(qorConvertLocalTimeInfo({60056, 5, 28, 5, 36, 10, 0, 9'551'615, 0}), ~0ull);
    qorClearLastError();
    EXPECT_EQ(qorConvertLocalTimeInfo({60056, 5, 28, 5, 36, 10, 0, 9'551'616, 0}), 0u);
    qorString text;
    EXPECT_EQ(last_error(text), uint32{qorError_no_such_time});
}

// In western zones, the beginning of the count is a time of 1600.
TEST(convert_local_time_info, one_tick_behind_the_beginning_of_the_count) {
    const zone set("XXX5");
    EXPECT_EQ(qorConvertLocalTimeInfo({1600, 12, 31, 19, 0, 0, 0, 1, 0}), 1u);
    EXPECT_EQ(qorConvertLocalTimeInfo({1600, 12, 31, 18, 59, 59, 0, 9'999'999, 0}), 0u);
}

TEST(zone_name, what_the_system_knows) {
    for (const char* const name :
         {"", ":", "UTC", "GMT", ":UTC", "UTC0", "CET-1", "CET-1CEST", "CET-1CEST,M3.5.0,M10.5.0/3", "Europe/Berlin",
          ":Europe/Berlin", "/usr/share/zoneinfo/Europe/Berlin", "<+0330>-3:30", "<-03>3<-02>,M3.5.0/-2,M10.5.0/-1",
          "EST+5EDT4,J60/2:00:00,365/167", "XXX24:59:59", "IST-1GMT0,M10.5.0,M3.5.0/1"})
        EXPECT_TRUE(qor::time::is_zone(name)) << name;
}

TEST(zone_name, what_it_does_not_know) {
    for (const char* const name : {"Europe/Atlantis",
                                   "Europe",
                                   "/nowhere",
                                   "/etc/passwd",
                                   "/",
                                   "XXX",
                                   " CET-1",
                                   "CE-1",
                                   "<+01-1",
                                   "CET-25",
                                   "CET-1:60",
                                   "CET-1:",
                                   "CET-1CE",
                                   "CET-1CEST,",
                                   "CET-1CEST,M3.5.0",
                                   "CET-1CEST,M13.5.0,M10.5.0",
                                   "CET-1CEST,M3.6.0,M10.5.0",
                                   "CET-1CEST,M3.5.7,M10.5.0",
                                   "CET-1CEST,M3.5,M10.5.0",
                                   "CET-1CEST,J0,J366",
                                   "CET-1CEST,M3.5.0,M10.5.0/168",
                                   "CET-1CEST,M3.5.0,M10.5.0 ",
                                   "\xff"})
        EXPECT_FALSE(qor::time::is_zone(name)) << name;
}

TEST(zone_name, an_unknown_one_is_the_last_error_of_each_call) {
    {
        const zone set("Europe/Atlantis");
        for (int call = 0; call < 3; ++call) {
            qorClearLastError();
            EXPECT_EQ(qorGetTimeZoneOffset(), 0);
            qorString text;
            EXPECT_EQ(last_error(text), uint32{qorError_unknown_time_zone});
            EXPECT_STREQ(text, "The time zone 'Europe/Atlantis' is not known here; the C library uses UTC instead.");
        }
    }
    const zone set("XXX-1");
    qorClearLastError();
    EXPECT_EQ(qorGetTimeZoneOffset(), 60);
    qorString text;
    EXPECT_EQ(last_error(text), uint32{qorError_none});
}

// The C library uses the part of a name that it understands.
TEST(zone_name, one_that_is_half_understood) {
    struct {
        const char* name;
        int32 minutes;
        const char* ahead;
    } const all[] = {{"CET-99", 24 * 60, "+24:00"},
                     {"CET-1 ", 60, "+01:00"},
                     {"XXX3:30:15YYY3:30:15,", -210, "-03:30:15"},
                     {" CET-1", 0, ""}};
    for (const auto& each : all) {
        const zone set(each.name);
        qorClearLastError();
        EXPECT_EQ(qorGetTimeZoneOffset(), each.minutes) << each.name;
        qorString text;
        EXPECT_EQ(last_error(text), uint32{qorError_unknown_time_zone});
        EXPECT_EQ(text.Text(), "The time zone '" + std::string(each.name) +
                                   "' is not known here; the C library uses UTC" + each.ahead + " instead.");
    }
}

TEST(zone_name, one_that_is_half_understood_and_has_summer_time) {
    const zone set("CET-1CEST,");
    for (const auto& [second, ahead] : {std::pair{1'609'459'200, "UTC+01:00"}, std::pair{1'625'097'600, "UTC+02:00"}}) {
        qorTimeInfo info;
        qorConvertTime((11'644'473'600 + uint64(second)) * qorTicksPerSecond, true, info);
        qorString text;
        last_error(text);
        EXPECT_NE(std::string(text.Text()).find(ahead), std::string::npos) << text.Text();
        const std::time_t seconds = second;
        EXPECT_EQ(info.utc_offset, std::localtime(&seconds)->tm_gmtoff);
    }
}

TEST(zone_name, leap_seconds_are_not_supported) {
    if (!std::filesystem::exists("/usr/share/zoneinfo/right/Europe/Berlin"))
        GTEST_SKIP() << "this system has no zones with leap seconds";
    const zone set("right/Europe/Berlin");
    qorClearLastError();
    qorGetTimeZoneOffset();
    qorString text;
    EXPECT_EQ(last_error(text), uint32{qorError_zone_with_leap_seconds});
    EXPECT_NE(std::string(text.Text()).find("'right/Europe/Berlin' counts leap seconds"), std::string::npos);
}

// Summer time begins on 27 March at 12:00 and ends on the next day at 12:00 of its own clocks.
TEST(convert_local_time_info, two_changes_within_a_day) {
    const zone set("AAA0BBB-1,J86/12,J87/12");
    constexpr uint64 noon = 13'261'320'000; // of 27 March 2021, in seconds
    struct {
        uint8 day, hour, minute;
        int64 seconds_from_noon;
    } const all[] = {{27, 11, 59, -60},   {27, 12, 30, 1800},  {27, 13, 0, 0},    {28, 0, 30, 41400},
                     {28, 10, 59, 79140}, {28, 11, 30, 81000}, {28, 12, 0, 86400}};
    for (const auto& each : all) {
        const qorTimeInfo info{2021, 3, each.day, each.hour, each.minute, 0, 0, 0, 0};
        EXPECT_EQ(qorConvertLocalTimeInfo(info) / qorTicksPerSecond, noon + uint64(each.seconds_from_noon))
            << int{each.day} << ' ' << int{each.hour};
    }
}

TEST(zone_name, an_unknown_one_is_traced) {
    ASSERT_TRUE(qorDebugEnableCode("system.time", true));
    testing::internal::CaptureStderr();
    {
        const zone set("Europe/Lemuria");
        qorGetTimeZoneOffset();
        qorGetTimeZoneOffset();
    }
    const std::string trace = testing::internal::GetCapturedStderr();
    qorDebugEnableCode("system.time", false);
    const std::string line =
        "system.time TZ does not name a time zone, the C library uses UTC instead: Europe/Lemuria\n";
    const std::size_t at = trace.find(line);
    ASSERT_NE(at, std::string::npos) << trace;
    EXPECT_EQ(at + line.size(), trace.size()) << "it is told once";
}

} // namespace
