#include "qor/qor.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <random>

namespace {

constexpr int64 seconds_to_1970 = 11'644'473'600;

int64 unix_time(uint64 clock) { return static_cast<int64>(clock / qorTicksPerSecond) - seconds_to_1970; }

uint32 last_error() {
    qorString text;
    return qorGetLastError(text);
}

// Reads the C++ library's clock before and after; if a clock is set back in between, the test repeats.
TEST(system_time, is_the_systems_clock_counted_from1601) {
    using namespace std::chrono;
    const auto now = [] {
        return duration_cast<duration<int64, std::ratio<1, 10'000'000>>>(system_clock::now().time_since_epoch())
            .count();
    };
    for (int round = 0; round < 100; ++round) {
        const int64 before = now();
        const int64 clock = static_cast<int64>(qorGetSystemTime() - seconds_to_1970 * qorTicksPerSecond);
        const int64 after = now();
        if (before <= clock && clock <= after)
            return;
    }
    ADD_FAILURE() << unix_time(qorGetSystemTime());
}

TEST(tick_counter, never_goes_back) {
    uint64 last = 0;
    for (int i = 0; i < 100'000; ++i) {
        const uint64 now = qorGetTickCounter();
        ASSERT_GE(now, last);
        last = now;
    }
}

TEST(sleep, is_never_short) {
    for (const uint32 ms : {0u, 1u, 2u, 3u, 5u, 16u, 20u, 1u, 1u, 1u}) {
        const uint64 begin = qorGetTickCounter();
        qorSleep(ms);
        ASSERT_GE(qorGetTickCounter() - begin, ms * uint64{10'000}) << ms;
    }
}

TEST(time_zone_offset, is_that_of_now) {
    qorTimeInfo info;
    int32 before;
    do { // the zone may change while this runs
        qorConvertTime(qorGetSystemTime(), true, info);
        before = info.utc_offset;
        EXPECT_EQ(qorGetTimeZoneOffset(), before);
        qorConvertTime(qorGetSystemTime(), true, info);
    } while (info.utc_offset != before);
}

// In any zone: a local time that exists converts back to itself, and a skipped one to a later time.
TEST(convert_local_time_info, goes_back_and_forth) {
    std::mt19937_64 random(22);
    constexpr uint64 day = 86'400 * qorTicksPerSecond;
    for (int i = 0; i < 3'000; ++i) {
        const uint64 clock = random() % (~0ull - 4 * day) + 2 * day;
        qorTimeInfo info;
        qorConvertTime(clock, true, info);
        const int32 offset = info.utc_offset;
        info.weekday = 99; // neither is used
        info.utc_offset = 99;
        const uint64 again = qorConvertLocalTimeInfo(info);
        qorTimeInfo shown;
        qorConvertTime(again, true, shown);
        // If a time comes twice, the first is used.
        ASSERT_LE(again, clock);
        ASSERT_EQ((clock - again) / qorTicksPerSecond, static_cast<uint64>(shown.utc_offset - offset)) << clock;
        info.weekday = shown.weekday;
        info.utc_offset = shown.utc_offset;
        ASSERT_EQ(std::memcmp(&info, &shown, sizeof info), 0) << clock;
    }
}

TEST(convert_local_time_info, refuses_what_is_no_time) {
    const qorTimeInfo good = {2021, 3, 28, 23, 59, 59, 0, 9'999'999, 0};
    qorClearLastError();
    EXPECT_NE(qorConvertLocalTimeInfo(good), 0u);
    EXPECT_EQ(last_error(), uint32{qorError_none});
    const auto refused = [&good](auto change) {
        qorTimeInfo info = good;
        change(info);
        qorClearLastError();
        return qorConvertLocalTimeInfo(info) == 0 && last_error() == qorError_no_such_time;
    };
    EXPECT_TRUE(refused([](qorTimeInfo& info) { info.hour = 24; }));
    EXPECT_TRUE(refused([](qorTimeInfo& info) { info.minute = 60; }));
    EXPECT_TRUE(refused([](qorTimeInfo& info) { info.second = 60; }));
    EXPECT_TRUE(refused([](qorTimeInfo& info) { info.ticks = 10'000'000; }));
    EXPECT_TRUE(refused([](qorTimeInfo& info) { info.month = 0; }));
    EXPECT_TRUE(refused([](qorTimeInfo& info) { info.month = 13; }));
    EXPECT_TRUE(refused([](qorTimeInfo& info) { info.day = 32; }));
    EXPECT_TRUE(refused([](qorTimeInfo& info) { info.year = 0; }));
    EXPECT_TRUE(refused([](qorTimeInfo& info) { info.year = 1600, info.day = 1; }));
    EXPECT_TRUE(refused([](qorTimeInfo& info) { info.year = 1; }));
    EXPECT_TRUE(refused([](qorTimeInfo& info) { info.year = 60'057; }));
    EXPECT_TRUE(refused([](qorTimeInfo& info) { info.year = 65'535; }));
}

} // namespace
