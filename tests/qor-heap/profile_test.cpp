// The parts that make a profile. The sums as a whole are compared with a plain implementation by tests/qor-heap.
#include "heap/profile/caller_text.h"
#include "heap/profile/profile_builder.h"
#include "heap/profile/timeline.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

namespace {

using namespace qor::heap;

TEST(caller_texts, name_a_place_in_a_file) {
    const auto is = [](std::string_view path, uint64 address) { return std::optional(caller_place{path, address}); };
    EXPECT_EQ(place_in_caller("./app:[0x11a9]"), is("./app", 0x11a9));
    EXPECT_EQ(place_in_caller("./app:(load+1d)[0x11a9]"), is("./app", 0x11a9));
    EXPECT_EQ(place_in_caller("./app(+0x11a9)[0x55d0c5b1a1a9]"), is("./app", 0x11a9));
    EXPECT_EQ(place_in_caller("/a b[1](x):[0x2]"), is("/a b[1](x)", 2));
    EXPECT_EQ(place_in_caller("C:\\app.exe:[0xffffffffffffffff]"), is("C:\\app.exe", ~uint64{0}));
    for (const char* const other :
         {"", "[0x11a9]", "app", "app:", ":[0x1]", "app:[0x1", "app:[]", "app:[0x1g]", "app:[0x10000000000000000]",
          "app(main+0x1)[0x7f00]", "app)[0x1]", "app[0x1]", "app(+)[0x1]", "(+0x1)[0x2]"})
        EXPECT_EQ(place_in_caller(other), std::nullopt) << other;
}

TEST(timelines, are_bounded_and_keep_the_extremes) {
    timeline course;
    constexpr uint64 records = 1'000'000;
    constexpr uint64 highest = 777'777, lowest = 888'888;
    for (uint64 i = 1; i <= records; ++i) {
        const uint64 bytes = i == highest ? 5000 : i == lowest ? 1 : 1000 + i % 7;
        course.add({bytes, 1}, [i] { return 2 * i; });
    }
    const auto moments = course.moments({2 * records, records, {1000, 1}});
    EXPECT_LE(moments.size(), profile::most_moments);
    EXPECT_GE(moments.size(), profile::most_moments / 4);
    EXPECT_EQ(course.peak(), (profile::moment{2 * highest, highest, {5000, 1}}));
    const auto has = [&](uint64 record) {
        return std::ranges::find(moments, record, &profile::moment::records) != moments.end();
    };
    EXPECT_TRUE(has(highest));
    EXPECT_TRUE(has(lowest));
    EXPECT_TRUE(has(records));
    EXPECT_TRUE(std::ranges::is_sorted(moments, std::ranges::less_equal{}, &profile::moment::records));
}

class profiles : public testing::Test {
protected:
    qor::test::temp_folder folder;
};

// A log may name new callers all the time.
TEST_F(profiles, have_a_limit_of_places) {
    std::string log;
    for (int i = 1; i <= 100; ++i) {
        const std::string number = std::to_string(i);
        log += "@ app:[0x" + number + "] + 0x" + number + "0 0x1\n";
    }
    const std::string path = folder.file("log.mtrace", log);
    for (const uint32 most : {10u, 101u, 102u}) {
        profile_builder builder({}, most);
        ASSERT_TRUE(builder.open_mtrace(path));
        builder.run();
        const profile made = builder.make_profile();
        // One number is that of the unknown place.
        const bool is_full = most <= 100;
        EXPECT_EQ(builder.replayed().origins().is_full(), is_full) << most;
        EXPECT_EQ(made.places.size(), is_full ? most : 100) << most;
        EXPECT_EQ(made.totals.live, (profile::counts{100, 100}));
        profile::counts sum;
        for (const profile::place& each : made.places)
            sum += each.live;
        EXPECT_EQ(sum, made.totals.live) << most;
    }
}

// The caller ends the reading of a log that grows.
TEST_F(profiles, of_a_log_that_grows) {
    const std::string path = folder.file("log.mtrace", "@ app:[0x1] + 0x10 0x8\n@ app:[0x1] + 0x2");
    int asked = 0;
    std::unique_ptr<profile_builder> builder;
    builder = std::make_unique<profile_builder>([&] {
        // The end of the second line is written while the log is being read.
        if (++asked == 2)
            folder.file("log.mtrace", "@ app:[0x1] + 0x10 0x8\n@ app:[0x1] + 0x20 0x9\n");
        return builder->records() < 2;
    });
    builder->follow();
    ASSERT_TRUE(builder->open_mtrace(path));
    builder->run();
    EXPECT_TRUE(builder->was_ended());
    const profile made = builder->make_profile();
    EXPECT_TRUE(made.is_partial);
    EXPECT_EQ(made.totals.live, (profile::counts{17, 2}));
    EXPECT_EQ(builder->warnings(), 0u);
}

} // namespace
