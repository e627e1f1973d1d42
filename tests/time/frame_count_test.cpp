#include "qor/qor.h"

#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <tuple>
#include <vector>

namespace {

// Counts frames one by one, like a display that skips the dropped numbers.
class odometer {
public:
    odometer(unsigned per_second, unsigned dropped) : m_per_second(per_second), m_dropped(dropped) {}

    const qorTimecode& now() const { return m_now; }

    void next() {
        if (++m_now.frames != m_per_second)
            return;
        m_now.frames = 0;
        if (++m_now.seconds != 60)
            return;
        m_now.seconds = 0;
        if (++m_now.minutes == 60) {
            m_now.minutes = 0;
            ++m_now.hours;
        }
        if (m_now.minutes % 10 != 0)
            m_now.frames = static_cast<uint16>(m_dropped);
    }

private:
    unsigned m_per_second, m_dropped;
    qorTimecode m_now;
};

struct rate_case {
    qorRational rate;
    bool drop_frame;
    unsigned per_second;
    unsigned dropped;
};

const rate_case common_rates[] = {
    {{24000, 1001}, false, 24, 0}, {{24, 1}, false, 24, 0},         {{25, 1}, false, 25, 0},
    {{30000, 1001}, false, 30, 0}, {{30000, 1001}, true, 30, 2},    {{30, 1}, false, 30, 0},
    {{48000, 1001}, false, 48, 0}, {{48, 1}, false, 48, 0},         {{50, 1}, false, 50, 0},
    {{60000, 1001}, false, 60, 0}, {{60000, 1001}, true, 60, 4},    {{60, 1}, false, 60, 0},
    {{100, 1}, false, 100, 0},     {{120000, 1001}, false, 120, 0}, {{120, 1}, false, 120, 0},
};

TEST(frame_count, every_frame_of24_hours_at_the_common_rates) {
    for (const rate_case& of : common_rates) {
        odometer model(of.per_second, of.dropped);
        uint64 count = 0;
        for (; model.now().hours != 24; model.next(), ++count) {
            qorTimecode timecode;
            timecode.SetFromFrameCount(of.rate, of.drop_frame, count);
            ASSERT_EQ(timecode.pack_u64(), model.now().pack_u64()) << of.rate.fp_val() << " " << count;
            ASSERT_EQ(timecode.GetFrameCount(of.rate, of.drop_frame), count) << of.rate.fp_val();
        }
        // The standard's own value: a day at 30000/1001 has 2,589,408 frames.
        EXPECT_EQ(count, of.dropped != 0 ? of.dropped * 1'294'704u : of.per_second * 86'400u);
    }
}

TEST(frame_count, the_flag_counts_only_where_frames_are_dropped) {
    std::mt19937_64 random(6);
    for (const qorRational& rate :
         {qorRational(24000, 1001), qorRational(25, 1), qorRational(30, 1), qorRational(60, 1),
          qorRational(120000, 1001), qorRational(29970, 1000), qorRational(30001, 1001), qorRational(30000, 1002)})
        for (int i = 0; i < 1000; ++i) {
            const uint64 count = random() >> random() % 64;
            qorTimecode with, without;
            with.SetFromFrameCount(rate, true, count);
            without.SetFromFrameCount(rate, false, count);
            ASSERT_EQ(with, without);
            ASSERT_EQ(with.GetFrameCount(rate, true), with.GetFrameCount(rate, false));
        }
}

TEST(frame_count, equal_rates_count_alike) {
    for (const int32 factor : {2, 3, 1000, INT_MAX / 30000}) {
        qorTimecode timecode;
        timecode.SetFromFrameCount(qorRational(30000 * factor, 1001u * static_cast<uint32>(factor)), 1800);
        EXPECT_EQ(timecode, qorTimecode(0, 1, 0, 2)) << factor;
    }
}

// Every hour has the same frames, so one hour of the odometer is enough for every count.
TEST(frame_count, any_count_of64_bits) {
    std::mt19937_64 random(7);
    for (const rate_case& of : common_rates) {
        std::vector<qorTimecode> hour;
        for (odometer model(of.per_second, of.dropped); model.now().hours == 0; model.next())
            hour.push_back(model.now());
        const uint64 wrap = 65536 * hour.size();
        const auto check = [&](uint64 count) {
            qorTimecode expected = hour[count % hour.size()];
            expected.hours = static_cast<uint16>(count / hour.size());
            qorTimecode timecode;
            timecode.SetFromFrameCount(of.rate, of.drop_frame, count);
            ASSERT_EQ(timecode.pack_u64(), expected.pack_u64()) << of.rate.fp_val() << " " << count;
            ASSERT_EQ(timecode.GetFrameCount(of.rate, of.drop_frame), count % wrap);
        };
        for (const uint64 count : {uint64{0}, ~uint64{0}, ~uint64{0} - 1, uint64{1} << 63, wrap, wrap - 1})
            check(count);
        for (int i = 0; i < 20000; ++i)
            check(random() >> random() % 64);
    }
}

// The nearest whole number of frames, halves rounded up; at least one.
TEST(frame_count, any_rational_rate) {
    const auto numbers_in_a_second = [](const qorRational& rate) {
        // Finds the first count that is one second later.
        uint64 low = 1, high = uint64{1} << 32;
        while (low < high) {
            const uint64 middle = (low + high) / 2;
            qorTimecode timecode;
            timecode.SetFromFrameCount(rate, middle);
            (timecode.pack_u64() >> 16 != 0 ? high : low) = timecode.pack_u64() >> 16 != 0 ? middle : middle + 1;
        }
        return low;
    };
    EXPECT_EQ(numbers_in_a_second({25, 2}), 13u);
    EXPECT_EQ(numbers_in_a_second({12499, 1000}), 12u);
    EXPECT_EQ(numbers_in_a_second({12501, 1000}), 13u);
    EXPECT_EQ(numbers_in_a_second({15, 1}), 15u);
    EXPECT_EQ(numbers_in_a_second({1, 1}), 1u);
    EXPECT_EQ(numbers_in_a_second({1, 2}), 1u);
    EXPECT_EQ(numbers_in_a_second({1, 3}), 1u);
    EXPECT_EQ(numbers_in_a_second({1, 0xffffffff}), 1u);
    EXPECT_EQ(numbers_in_a_second({1000, 1}), 1000u);
    EXPECT_EQ(numbers_in_a_second({65536, 1}), 65536u);
    EXPECT_EQ(numbers_in_a_second({INT_MAX, 1}), 2147483647u);
    EXPECT_EQ(numbers_in_a_second({INT_MAX, 2}), 1073741824u);
    EXPECT_EQ(numbers_in_a_second({INT_MAX, 0xffffffff}), 1u);
    EXPECT_EQ(numbers_in_a_second({INT_MAX, 0x80000000}), 1u);

    std::mt19937_64 random(8);
    for (int i = 0; i < 300; ++i) {
        const qorRational rate(static_cast<int32>((random() & 0x7fffffff) >> random() % 31 | 1),
                               static_cast<uint32>(random()) >> random() % 32 | 1);
        const auto numerator = static_cast<uint32>(rate.numerator);
        // n is nearest if 2n - 1 <= 2 * rate < 2n + 1.
        const uint64 n = numbers_in_a_second(rate);
        const uint64 twice = 2ull * numerator;
        EXPECT_GT((2 * n + 1) * rate.denominator, twice);
        EXPECT_TRUE(n == 1 || (2 * n - 1) * rate.denominator <= twice);
    }
}

TEST(frame_count, is_its_inverse_where_hours_and_frames_fit) {
    std::mt19937_64 random(9);
    for (int i = 0; i < 50000; ++i) {
        const qorRational rate(static_cast<int32>((random() & 0xffff) >> random() % 16 | 1),
                               static_cast<uint32>(random() & 0xffff) >> random() % 16 | 1);
        const uint64 hours_65536 = qorTimecode(65535, 59, 60, 0).GetFrameCount(rate, true);
        const uint64 count = (random() >> random() % 64) % hours_65536;
        qorTimecode timecode;
        timecode.SetFromFrameCount(rate, count);
        ASSERT_EQ(timecode.GetFrameCount(rate, true), count);
        ASSERT_LT(timecode.minutes, 60);
        ASSERT_LT(timecode.seconds, 60);
    }
}

TEST(frame_count, a_frame_number_that_is_left_out_is_the_next_that_is_not) {
    for (const auto& [rate, per_second, dropped] :
         {std::tuple{qorRational(30000, 1001), 30, 2}, std::tuple{qorRational(60000, 1001), 60, 4}})
        for (uint16 minute = 1; minute < 60; ++minute) {
            const auto first = static_cast<uint16>(minute % 10 == 0 ? 0 : dropped);
            const uint64 count = qorTimecode(3, minute, 0, first).GetFrameCount(rate, true);
            for (uint16 frame = 0; frame < first; ++frame)
                EXPECT_EQ(qorTimecode(3, minute, 0, frame).GetFrameCount(rate, true), count);
            const qorTimecode before(3, static_cast<uint16>(minute - 1), 59, static_cast<uint16>(per_second - 1));
            EXPECT_EQ(before.GetFrameCount(rate, true), count - 1);
        }
}

TEST(frame_count, fields_beyond_their_ranges_are_carried) {
    for (const rate_case& of : common_rates) {
        const auto count = [&of](uint16 h, uint16 m, uint16 s, uint16 f) {
            return qorTimecode(h, m, s, f).GetFrameCount(of.rate, of.drop_frame);
        };
        const auto per_second = static_cast<uint16>(of.per_second);
        EXPECT_EQ(count(0, 0, 61, 5), count(0, 1, 1, 5));
        EXPECT_EQ(count(0, 60, 0, 5), count(1, 0, 0, 5));
        EXPECT_EQ(count(0, 0, 0, static_cast<uint16>(5 * per_second + 7)), count(0, 0, 5, 7));
        EXPECT_EQ(count(0, 59, 59, static_cast<uint16>(2 * per_second)), count(1, 0, 1, 0));
        EXPECT_EQ(count(0, 0, 59, static_cast<uint16>(per_second + 5)), count(0, 1, 0, 5));
    }
    EXPECT_EQ(qorTimecode(65535, 65535, 65535, 65535).GetFrameCount(qorRational(INT_MAX, 1), true),
              (65535ull * 3600 + 65535 * 60 + 65535) * INT_MAX + 65535);
}

TEST(frame_count, frames_and_hours_keep_their_lower16_bits) {
    qorTimecode timecode;
    timecode.SetFromFrameCount(qorRational(100000, 1), 70000);
    EXPECT_EQ(timecode, qorTimecode(0, 0, 0, 70000 - 65536));
    timecode.SetFromFrameCount(qorRational(1, 1), 65536 * 3600 + 1);
    EXPECT_EQ(timecode, qorTimecode(0, 0, 1, 0));
}

} // namespace
