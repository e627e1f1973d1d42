#include "support/recording_table.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdio>
#include <random>
#include <string>

namespace {

using calls = std::vector<std::string>;

std::string video(const qorTimecode& timecode) {
    qorString out;
    timecode.GetVideoString(out);
    return out.Text();
}

template <class RATE>
std::string text(const qorTimecode& timecode, const RATE& rate) {
    qorString out;
    timecode.GetString(rate, out);
    return out.Text();
}

TEST(timecode, is_packed_into_one_number) {
    EXPECT_EQ(qorTimecode(1, 2, 3, 4).pack_u64(), 0x0001000200030004u);
    EXPECT_EQ(qorTimecode(0xffff, 0, 0x8000, 0xfffe).pack_u64(), 0xffff00008000fffeu);
    std::mt19937_64 random(4);
    for (int i = 0; i < 1000; ++i) {
        const uint64 packed = random();
        qorTimecode timecode(9, 9, 9, 9);
        timecode.unpack_u64(packed);
        EXPECT_EQ(timecode.pack_u64(), packed);
    }
    qorTimecode timecode;
    timecode.unpack_u64(0x0001000200030004u);
    EXPECT_EQ(timecode, qorTimecode(1, 2, 3, 4));
}

TEST(timecode, is_a_text_for_pictures) {
    EXPECT_EQ(video({1, 2, 3, 4}), "01:02:03:04");
    EXPECT_EQ(video({0, 0, 0, 0}), "00:00:00:00");
    EXPECT_EQ(video({65535, 100, 61, 999}), "65535:100:61:999");
}

TEST(timecode, is_a_text_for_sound) {
    qorString out;
    qorTimecode(1, 2, 3, 4).GetAudioString(out);
    EXPECT_STREQ(out.Text(), "01:02:03.004");
    qorTimecode(100, 0, 0, 65535).GetAudioString(out);
    EXPECT_STREQ(out.Text(), "100:00:00.65535");
}

TEST(timecode, its_frames_are_as_wide_as_the_highest_of_the_rate) {
    const qorTimecode timecode(1, 2, 3, 4);
    EXPECT_EQ(text(timecode, 1u), "01:02:03:4");
    EXPECT_EQ(text(timecode, 10u), "01:02:03:4");
    EXPECT_EQ(text(timecode, 11u), "01:02:03:04");
    EXPECT_EQ(text(timecode, 25u), "01:02:03:04");
    EXPECT_EQ(text(timecode, 100u), "01:02:03:04");
    EXPECT_EQ(text(timecode, 101u), "01:02:03:004");
    EXPECT_EQ(text(timecode, 1000u), "01:02:03:004");
    EXPECT_EQ(text(timecode, 1001u), "01:02:03:004");
    EXPECT_EQ(text(timecode, 0xffffffffu), "01:02:03:004");
    EXPECT_EQ(text(timecode, 0u), "01:02:03:0000000004");
    EXPECT_EQ(text(qorTimecode(0, 0, 0, 123), 25u), "00:00:00:123");
}

TEST(timecode, the_rate_may_be_a_fraction) {
    const qorTimecode timecode(1, 2, 3, 4);
    const auto of = [&timecode](int32 numerator, uint32 denominator) {
        return text(timecode, qorRational(numerator, denominator));
    };
    EXPECT_EQ(of(25, 1), "01:02:03:04");
    EXPECT_EQ(of(30000, 1001), "01:02:03:04");
    EXPECT_EQ(of(10, 1), "01:02:03:4");
    EXPECT_EQ(of(21, 2), "01:02:03:04");      // 10.0
    EXPECT_EQ(of(20999, 2000), "01:02:03:4"); // 9.9995
    EXPECT_EQ(of(1000, 1), "01:02:03:004");
    EXPECT_EQ(of(1001, 1), "01:02:03:004");
    EXPECT_EQ(of(INT_MAX, 1), "01:02:03:004");
    EXPECT_EQ(of(0, 1), "01:02:03:4");
    EXPECT_EQ(of(1, 4), "01:02:03:4");
    EXPECT_EQ(of(1, 0), "01:02:03:4");
    EXPECT_EQ(of(INT_MAX, 0), "01:02:03:4");
    EXPECT_EQ(of(-1, 4), "01:02:03:4"); // rounded towards zero
    EXPECT_EQ(of(-25, 1), "01:02:03:0000000004");
    EXPECT_EQ(of(INT_MIN, 1), "01:02:03:0000000004");
}

// ---- from a clock
constexpr uint64 second = 10'000'000;

TEST(timecode, is_the_time_of_day_of_a_clock) {
    qor::test::recording_table table;
    qorTimecode timecode;
    const uint64 day = 86400 * second;
    const uint64 clock = 150000 * day + (23 * 3600 + 59 * 60 + 58) * second;
    timecode.SetFromClock(qorRational(25, 1), false, clock + 5'000'000);
    EXPECT_EQ(timecode, qorTimecode(23, 59, 58, 12));
    timecode.SetFromClock(qorRational(25, 1), false, clock + second - 1);
    EXPECT_EQ(timecode, qorTimecode(23, 59, 58, 24));
    timecode.SetFromClock(qorRational(25, 1), false, clock + 2 * second);
    EXPECT_EQ(timecode, qorTimecode(0, 0, 0, 0));
    timecode.SetFromClock(qorRational(30000, 1001), false, clock + 9'999'999);
    EXPECT_EQ(timecode, qorTimecode(23, 59, 58, 29));
    timecode.SetFromClock(qorRational(1, 0xffffffff), false, clock + 9'999'999);
    EXPECT_EQ(timecode, qorTimecode(23, 59, 58, 0));
    timecode.SetFromClock(qorRational(25, 1), false, 0);
    EXPECT_EQ(timecode, qorTimecode(0, 0, 0, 0));
    EXPECT_EQ(table.take(), calls{});
}

TEST(timecode, a_rate_above_a_thousand_is_a_thousand) {
    for (const uint64 ticks : {0ull, 1ull, 9'999ull, 10'000ull, 1'234'567ull, 9'999'999ull}) {
        qorTimecode thousand, more, little_more;
        thousand.SetFromClock(qorRational(1000, 1), false, 3 * second + ticks);
        more.SetFromClock(qorRational(2000, 1), false, 3 * second + ticks);
        little_more.SetFromClock(qorRational(INT_MAX, 2147483), false, 3 * second + ticks);
        EXPECT_EQ(thousand, qorTimecode(0, 0, 3, static_cast<uint16>(ticks / 10'000)));
        EXPECT_EQ(more, thousand);
        EXPECT_EQ(little_more, thousand);
    }
}

TEST(timecode, frames_of_a_clock_are_exact) {
    std::mt19937_64 random(5);
    for (int i = 0; i < 20000; ++i) {
        const qorRational rate(static_cast<int32>(random() % 0x7fffffff + 1) >> random() % 31 | 1,
                               static_cast<uint32>(random()) >> random() % 32 | 1);
        if (rate.fp_val() > 1000.0)
            continue;
        const uint64 ticks = random() % second;
        qorTimecode timecode;
        timecode.SetFromClock(rate, false, ticks);
        // The last frame that has begun; frame n begins at n * denominator / numerator seconds.
        __extension__ using wide = unsigned __int128;
        const auto begins = [&](uint64 frame) {
            return wide{frame} * rate.denominator * second <= wide{ticks} * static_cast<uint32>(rate.numerator);
        };
        ASSERT_TRUE(begins(timecode.frames));
        ASSERT_FALSE(begins(timecode.frames + 1u));
    }
}

TEST(timecode, a_rate_that_is_none_is_reported) {
    qor::test::recording_table table;
    const calls report{qor::test::assertion("INVALID FRAME RATE",
                                            "void qorTimecode::SetFromClock(const qorRational&, bool, uint64)",
                                            "qorcore/include/qor/system/Timecode", 128)};
    for (const qorRational& rate :
         {qorRational(25, 0), qorRational(0, 1), qorRational(-25, 1), qorRational(INT_MIN, 1), qorRational()}) {
        qorTimecode timecode(1, 2, 3, 4);
        timecode.SetFromClock(rate, false, 12345 * second);
        EXPECT_EQ(timecode, qorTimecode());
        EXPECT_EQ(table.take(), report);
    }
}

TEST(timecode, local_time_is_asked_for_where_it_is_wanted) {
    static std::vector<std::string> asked;
    asked.clear();
    qor::test::recording_table table;
    table.rows.qorConvertTime = [](uint64 clock, bool local, qorTimeInfo& info) noexcept {
        asked.push_back(std::to_string(clock) + (local ? " local" : " UTC"));
        info = {};
        info.hour = 21;
        info.minute = 22;
        info.second = 23;
    };
    qorTimecode timecode;
    timecode.SetFromClock(qorRational(10, 1), true, 5'000'000);
    EXPECT_EQ(timecode, qorTimecode(21, 22, 23, 5));
    timecode.SetFromClock(qorRational(10, 1), false, 0);
    EXPECT_EQ(asked, (calls{"5000000 local", "0 UTC"}));
}

// ---- the library converts frame counts
TEST(timecode, without_a_flag_counts_with_dropped_frames) {
    qor::test::recording_table table;
    const qorRational rate(30000, 1001);
    qorTimecode without, with, plain;
    without.SetFromFrameCount(rate, 1800);
    with.SetFromFrameCount(rate, true, 1800);
    plain.SetFromFrameCount(rate, false, 1800);
    EXPECT_EQ(with, qorTimecode(0, 1, 0, 2));
    EXPECT_EQ(without, with);
    EXPECT_EQ(plain, qorTimecode(0, 1, 0, 0));
    qorTimecode by_its_own_row; // this client has no call for it
    qor::glue::qorTimecode_SetFromFrameCount(&by_its_own_row, rate, 1800);
    EXPECT_EQ(by_its_own_row, with);
    EXPECT_EQ(with.GetFrameCount(rate, true), 1800u);
    EXPECT_EQ(with.GetFrameCount(rate, false), 1802u);
    EXPECT_EQ(table.take(), calls{});
}

TEST(timecode, without_a_flag_passes_true_for_it) {
    static std::string asked;
    asked.clear();
    qor::test::recording_table table;
    table.rows.qorTimecode_SetFromFrameCount = [](qorTimecode*, const qorRational&, uint64) noexcept {
        asked += "without;";
    };
    table.rows.qorTimecode_SetFromFrameCount_drop = [](qorTimecode*, const qorRational& rate, bool drop_frame,
                                                       uint64 count) noexcept {
        asked += std::to_string(rate.numerator) + (drop_frame ? " true " : " false ") + std::to_string(count) + ";";
    };
    qorTimecode timecode;
    timecode.SetFromFrameCount(qorRational(25, 1), 7);
    timecode.SetFromFrameCount(qorRational(30, 1), false, 8);
    EXPECT_EQ(asked, "25 true 7;30 false 8;");
}

// The library itself reports on standard error.
template <class ACTION>
std::string reported(ACTION action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

TEST(timecode, a_rate_that_is_none_counts_nothing) {
    const std::string set = "assertion failed: INVALID FRAME RATE, in void "
                            "qorTimecode::SetFromFrameCount(const qorRational&, bool, "
                            "uint64) (qorcore/src/time/timecode:50)";
    const std::string get = "assertion failed: INVALID FRAME RATE, in uint64 "
                            "qorTimecode::GetFrameCount(const qorRational&, bool) const "
                            "(qorcore/src/time/timecode:68)";
    for (const qorRational& rate :
         {qorRational(25, 0), qorRational(0, 1), qorRational(-25, 1), qorRational(INT_MIN, 1), qorRational()}) {
        qorTimecode timecode(1, 2, 3, 4);
        uint64 count = 1;
        EXPECT_NE(reported([&] { count = timecode.GetFrameCount(rate, true); }).find(get), std::string::npos);
        EXPECT_EQ(count, 0u);
        EXPECT_NE(reported([&] { timecode.SetFromFrameCount(rate, 1000); }).find(set), std::string::npos);
        EXPECT_EQ(timecode, qorTimecode());
        timecode.Set(1, 2, 3, 4);
        EXPECT_NE(reported([&] { timecode.SetFromFrameCount(rate, false, 1000); }).find(set), std::string::npos);
        EXPECT_EQ(timecode, qorTimecode());
    }
}

} // namespace
