#include "qor/qor.h"
#include "time/zone_name.h"
#include "unit/zone.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <sys/time.h>

namespace {

using qor::test::zone;

std::atomic<int> interruptions;

uint32 last_error(qorString& text) { return qorGetLastError(text); }

TEST(Sleep, GoesOnAfterSignals) {
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

TEST(ConvertLocalTimeInfo, TheFirstTickAndTheLast) {
    const zone set("UTC0");
    EXPECT_EQ(qorConvertLocalTimeInfo({1601, 1, 1, 0, 0, 0, 0, 1, 0}), 1u);
    EXPECT_EQ(qorConvertLocalTimeInfo({60056, 5, 28, 5, 36, 10, 0, 9'551'615, 0}), ~0ull);
    qorClearLastError();
    EXPECT_EQ(qorConvertLocalTimeInfo({60056, 5, 28, 5, 36, 10, 0, 9'551'616, 0}), 0u);
    qorString text;
    EXPECT_EQ(last_error(text), uint32{qorError_no_such_time});
}

// The beginning of the count is a time of 1600 in the west.
TEST(ConvertLocalTimeInfo, OneTickBehindTheBeginningOfTheCount) {
    const zone set("XXX5");
    EXPECT_EQ(qorConvertLocalTimeInfo({1600, 12, 31, 19, 0, 0, 0, 1, 0}), 1u);
    EXPECT_EQ(qorConvertLocalTimeInfo({1600, 12, 31, 18, 59, 59, 0, 9'999'999, 0}), 0u);
}

TEST(ZoneName, WhatTheSystemKnows) {
    for (const char* const name :
         {"", ":", "UTC", "GMT", ":UTC", "UTC0", "CET-1", "CET-1CEST", "CET-1CEST,M3.5.0,M10.5.0/3",
          "Europe/Berlin", ":Europe/Berlin", "/usr/share/zoneinfo/Europe/Berlin", "<+0330>-3:30",
          "<-03>3<-02>,M3.5.0/-2,M10.5.0/-1", "EST+5EDT4,J60/2:00:00,365/167", "XXX24:59:59",
          "IST-1GMT0,M10.5.0,M3.5.0/1"})
        EXPECT_TRUE(qor::time::is_zone(name)) << name;
}

TEST(ZoneName, WhatItDoesNotKnow) {
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

TEST(ZoneName, AnUnknownOneIsTheLastErrorOfEachCall) {
    {
        const zone set("Europe/Atlantis");
        for (int call = 0; call < 3; ++call) {
            qorClearLastError();
            EXPECT_EQ(qorGetTimeZoneOffset(), 0);
            qorString text;
            EXPECT_EQ(last_error(text), uint32{qorError_unknown_time_zone});
            EXPECT_STREQ(text, "The time zone 'Europe/Atlantis' is not known here; UTC stands in for it.");
        }
    }
    const zone set("XXX-1");
    qorClearLastError();
    EXPECT_EQ(qorGetTimeZoneOffset(), 60);
    qorString text;
    EXPECT_EQ(last_error(text), uint32{qorError_none});
}

TEST(ZoneName, AnUnknownOneIsTraced) {
    ASSERT_TRUE(qorDebugEnableCode("system.time", true));
    testing::internal::CaptureStderr();
    {
        const zone set("Europe/Lemuria");
        qorGetTimeZoneOffset();
        qorGetTimeZoneOffset();
    }
    const std::string trace = testing::internal::GetCapturedStderr();
    qorDebugEnableCode("system.time", false);
    const std::string line = "system.time TZ names no time zone, UTC stands in for it: Europe/Lemuria\n";
    const std::size_t at = trace.find(line);
    ASSERT_NE(at, std::string::npos) << trace;
    EXPECT_EQ(at + line.size(), trace.size()) << "it is told once";
}

} // namespace
