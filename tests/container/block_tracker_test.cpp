#include "container_support.h"

#include <algorithm>
#include <map>
#include <random>

using qor::test::last_error_number;
using qor::test::read;
using qor::test::refuses_each_beginning;
using qor::test::written;

namespace {

constexpr uint64 end_of_space = ~uint64{0};

std::vector<std::pair<uint64, uint64>> ranges(IQORBlockTracker64* tracker) {
    std::vector<std::pair<uint64, uint64>> all;
    for (const auto& [first, last] : *tracker)
        all.emplace_back(first, last);
    return all;
}

// A plain tracker of a small space: one entry for each place.
class plain_tracker {
public:
    explicit plain_tracker(uint64 base) : m_base(base) {}

    static constexpr uint64 size = 4096;

    bool set(uint64 first, uint64 last, bool taken) {
        bool has_changed = false;
        for (uint64 i = first; i <= last; ++i)
            has_changed |= std::exchange(m_taken[i], taken) != taken;
        return has_changed;
    }
    bool all(uint64 first, uint64 last) const {
        return std::all_of(m_taken + first, m_taken + last + 1, [](bool each) { return each; });
    }
    bool any(uint64 first, uint64 last) const {
        return std::any_of(m_taken + first, m_taken + last + 1, [](bool each) { return each; });
    }
    std::optional<uint64> gap(uint64 length, uint64 from) const {
        uint64 free = 0;
        for (uint64 i = from; i < size; ++i)
            if ((free = m_taken[i] ? 0 : free + 1) == length)
                return m_base + (i + 1 - length);
        return std::nullopt;
    }
    std::vector<std::pair<uint64, uint64>> ranges() const {
        std::vector<std::pair<uint64, uint64>> all;
        for (uint64 i = 0; i < size; ++i) {
            if (!m_taken[i])
                continue;
            if (i == 0 || !m_taken[i - 1])
                all.emplace_back(m_base + i, 0);
            all.back().second = m_base + i;
        }
        return all;
    }

private:
    uint64 m_base;
    bool m_taken[size] = {};
};

// At the beginning of the space, at its end, and between.
class block_tracker_places : public testing::TestWithParam<uint64> {};
INSTANTIATE_TEST_SUITE_P(places, block_tracker_places,
                         testing::Values(0, uint64{1} << 40, end_of_space - plain_tracker::size + 1));

TEST_P(block_tracker_places, do_what_a_bitmap_does) {
    const uint64 base = GetParam();
    std::mt19937 random(1);
    // Short ranges make many leaves, long ones empty them again.
    for (const uint32 longest : {1u, 3u, 50u, 3000u}) {
        qorBlockTracker64 tracker;
        const auto plain = std::make_unique<plain_tracker>(base);
        for (int step = 0; step < 20'000; ++step) {
            const uint64 first = random() % plain_tracker::size;
            const uint64 last = std::min<uint64>(first + random() % longest, plain_tracker::size - 1);
            switch (random() % 8) {
            case 0:
                ASSERT_EQ(tracker->AreTaken(base + first, base + last), plain->all(first, last));
                break;
            case 1:
                ASSERT_EQ(tracker->AnyTaken(base + first, base + last), plain->any(first, last));
                break;
            case 2: {
                const bool is_free = !plain->any(first, last);
                ASSERT_EQ(tracker->AddNew(base + first, base + last), is_free);
                if (is_free)
                    plain->set(first, last, true);
                break;
            }
            case 3:
            case 4:
                ASSERT_EQ(tracker->Add(base + first, base + last), plain->set(first, last, true));
                break;
            case 5:
            case 6:
                ASSERT_EQ(tracker->Remove(base + first, base + last), plain->set(first, last, false));
                break;
            default: {
                const uint64 size = 1 + random() % (2 * longest);
                const std::optional<uint64> expected = plain->gap(size, first),
                                            gap = tracker->FindGap(size, base + first);
                // The plain one ends with its small space.
                if (expected || base + (plain_tracker::size - 1) == end_of_space) {
                    ASSERT_EQ(gap, expected) << step;
                } else {
                    ASSERT_GT(*gap + (size - 1), base + (plain_tracker::size - 1));
                }
            }
            }
            if (step % 500 == 0) {
                ASSERT_EQ(ranges(tracker), plain->ranges()) << step;
            }
        }
        ASSERT_EQ(ranges(tracker), plain->ranges());
        ASSERT_EQ(tracker->GetCount(), plain->ranges().size());
    }
}

TEST(block_tracker, knows_the_whole_space) {
    qorBlockTracker64 tracker;
    EXPECT_EQ(tracker->FindGap(end_of_space), 0u);
    EXPECT_TRUE(tracker->Add(0, end_of_space));
    EXPECT_FALSE(tracker->Add(0, end_of_space));
    EXPECT_TRUE(tracker->AreTaken(0, end_of_space));
    EXPECT_EQ(tracker->FindGap(1), std::nullopt);
    EXPECT_EQ(tracker->FindGap(1, end_of_space), std::nullopt);
    EXPECT_EQ(ranges(tracker), (std::vector<std::pair<uint64, uint64>>{{0, end_of_space}}));
    EXPECT_TRUE(tracker->Remove(5, 5));
    EXPECT_EQ(tracker->FindGap(1), 5u);
    EXPECT_EQ(tracker->FindGap(2), std::nullopt);
    EXPECT_EQ(tracker->GetCount(), 2u);
    EXPECT_TRUE(tracker->Remove(end_of_space, end_of_space));
    EXPECT_EQ(tracker->FindGap(1, 6), end_of_space);
    EXPECT_TRUE(tracker->Remove(0, end_of_space));
    EXPECT_EQ(tracker->GetCount(), 0u);
    EXPECT_FALSE(tracker->Add(2, 1));
    EXPECT_FALSE(tracker->FindGap(0));
    EXPECT_TRUE(tracker->Add(10, end_of_space));
    EXPECT_EQ(tracker->FindGap(10), 0u);
    EXPECT_EQ(tracker->FindGap(11), std::nullopt);
}

TEST(block_tracker, takes_gaps_one_after_the_other) {
    qorBlockTracker64 tracker;
    tracker->Add(10, 19);
    EXPECT_EQ(tracker->TakeGap(10), 0u);
    EXPECT_EQ(tracker->TakeGap(10), 20u);
    EXPECT_EQ(tracker->TakeGap(1, 100), 100u);
    EXPECT_EQ(tracker->TakeGap(71), 101u);
    EXPECT_EQ(tracker->TakeGap(70), 30u);
    EXPECT_EQ(ranges(tracker), (std::vector<std::pair<uint64, uint64>>{{0, 171}}));
}

// A sequence of many leaves and several blocks of leaves.
qorBlockTracker64 many(uint64 count, uint64 distance) {
    qorBlockTracker64 tracker;
    for (uint64 i = 0; i < count; ++i)
        tracker->Add(i * distance, i * distance);
    return tracker;
}

TEST(block_tracker, finds_gaps_among_many_ranges) {
    constexpr uint64 count = 200'000;
    qorBlockTracker64 tracker = many(count, 2);
    EXPECT_EQ(tracker->GetCount(), count);
    EXPECT_EQ(tracker->FindGap(1), 1u);
    EXPECT_EQ(tracker->FindGap(2), 2 * count - 1);
    std::mt19937 random(1);
    for (int i = 0; i < 2000; ++i) {
        const uint64 place = 2 * (1 + random() % (count - 2));
        ASSERT_TRUE(tracker->Remove(place, place));
        ASSERT_EQ(tracker->FindGap(3), place - 1);
        ASSERT_EQ(tracker->FindGap(3, place), 2 * count - 1);
        ASSERT_TRUE(tracker->Add(place, place));
    }
    // From the back to the front, and all of it.
    qorBlockTracker64 other;
    for (uint64 i = count; i-- != 0;)
        ASSERT_TRUE(other->AddNew(i * 2, i * 2));
    EXPECT_TRUE(other == tracker);
    EXPECT_EQ(other->GetHash(), tracker->GetHash());
    EXPECT_TRUE(tracker->Remove(2, 2 * count));
    EXPECT_EQ(ranges(tracker), (std::vector<std::pair<uint64, uint64>>{{0, 0}}));
    for (uint64 i = 0; i < count; ++i)
        ASSERT_TRUE(other->Add(i * 2 + 1, i * 2 + 1));
    EXPECT_EQ(ranges(other), (std::vector<std::pair<uint64, uint64>>{{0, 2 * count - 1}}));
}

TEST(block_tracker, merges_and_subtracts) {
    std::mt19937 random(2);
    for (const int others : {3, 300, 3000}) { // one by one, and as a whole
        qorBlockTracker64 left, right;
        for (int i = 0; i < 1000; ++i) {
            const uint64 first = random() % 100'000;
            left->Add(first, first + random() % 20);
        }
        for (int i = 0; i < others; ++i) {
            const uint64 first = random() % 100'000;
            right->Add(first, first + random() % 20);
        }
        qorBlockTracker64 sum(left), expected(left), difference(left);
        for (const auto& [first, last] : right)
            expected->Add(first, last);
        sum->Merge(right);
        EXPECT_TRUE(sum == expected);
        EXPECT_EQ(sum->GetHash(), expected->GetHash());
        difference->Subtract(right);
        for (const auto& [first, last] : right) {
            ASSERT_FALSE(difference->AnyTaken(first, last));
            ASSERT_TRUE(sum->AreTaken(first, last));
        }
        difference->Merge(right);
        EXPECT_TRUE(difference == sum);
        sum->Merge(sum);
        EXPECT_TRUE(difference == sum);
        sum->Subtract(sum);
        EXPECT_EQ(sum->GetCount(), 0u);
    }
}

TEST(block_tracker, may_change_during_a_walk) {
    qorBlockTracker64 tracker = many(1000, 10);
    uint64 seen = 0;
    for (const auto& [first, last] : tracker) {
        ++seen;
        if (first == 0)
            tracker->Remove(5000, ~uint64{0}); // far behind what was fetched
        tracker->Remove(first, last);
    }
    EXPECT_EQ(seen, 500u);
    EXPECT_EQ(tracker->GetCount(), 0u);
}

TEST(block_tracker, gives_ranges_in_pieces) {
    qorBlockTracker64 tracker = many(2000, 3);
    for (const uint64 room : {1, 100, 2000, 5000}) {
        std::vector<qorBlockRange> piece(room);
        uint64 from = 0, total = 0;
        while (const uint64 count = tracker->GetRanges(from, piece.data(), room)) {
            EXPECT_EQ(piece[0].first, total * 3);
            total += count;
            from = piece[count - 1].last + 1;
        }
        EXPECT_EQ(total, 2000u);
    }
}

TEST(block_tracker, survives_its_stream_form) {
    qorBlockTracker64 tracker = many(50, 7), back;
    tracker->Add(end_of_space - 5, end_of_space);
    EXPECT_TRUE(read(*back.Interface(), written(*tracker.Interface())));
    EXPECT_TRUE(back == tracker);
    refuses_each_beginning(tracker);

    const auto form = [](std::vector<std::pair<uint64, uint64>> all) {
        std::string bytes("\x0c\x71\x01\x00", 4);
        const auto put = [&](uint64 number) {
            for (int i = 0; i < 8; ++i)
                bytes += static_cast<char>(number >> (8 * i));
        };
        put(all.size());
        for (const auto& [first, last] : all) {
            put(first);
            put(last);
        }
        return bytes;
    };
    EXPECT_TRUE(read(*back.Interface(), form({{0, 1}, {3, 3}, {end_of_space, end_of_space}})));
    const auto before = ranges(back);
    for (const auto& wrong :
         std::vector<std::vector<std::pair<uint64, uint64>>>{{{2, 1}},
                                                             {{0, 1}, {2, 3}},
                                                             {{5, 9}, {0, 1}},
                                                             {{0, 5}, {3, 9}},
                                                             {{1, end_of_space}, {0, 0}},
                                                             {{0, end_of_space - 1}, {end_of_space, end_of_space}},
                                                             {{0, end_of_space}, {1, 1}}}) {
        EXPECT_FALSE(read(*back.Interface(), form(wrong)));
        EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_stream_form));
        EXPECT_EQ(ranges(back), before);
    }
}

} // namespace
