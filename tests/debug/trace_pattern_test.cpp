// Patterns of trace codes, compared with a plain matcher, and the work of matching them.
#include "debug/trace_pattern.h"
#include "qor/qor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using qor::debug::trace_pattern;

// Follows the definition directly: row by row, whether a prefix of the name matches a prefix of the pattern.
bool plainly_matches(const std::string& pattern, const std::string& name) {
    std::vector<bool> row(name.size() + 1, false);
    row[0] = true;
    for (const char c : pattern) {
        std::vector<bool> next(name.size() + 1, false);
        next[0] = c == '*' && row[0];
        for (std::size_t i = 1; i <= name.size(); ++i)
            next[i] = c == '*' ? row[i] || next[i - 1] : row[i - 1] && name[i - 1] == c;
        row = next;
    }
    return row[name.size()];
}

std::string text(std::mt19937& random, const std::string& alphabet, unsigned length) {
    std::string made;
    for (unsigned i = random() % (length + 1); i != 0; --i)
        made += alphabet[random() % alphabet.size()];
    return made;
}

std::string times(std::size_t count, const std::string& what) {
    std::string made;
    for (std::size_t i = 0; i < count; ++i)
        made += what;
    return made;
}

// Returns the number of byte comparisons of a match.
std::size_t work(const std::string& pattern, const std::string& name) {
    std::size_t comparisons = 0;
    const bool matched = trace_pattern(pattern).matches(name, [&comparisons](char one, char other) {
        ++comparisons;
        return one == other;
    });
    EXPECT_EQ(matched, plainly_matches(pattern, name));
    return comparisons;
}

TEST(trace_pattern, as_a_plain_matcher_says) {
    std::mt19937 random(4711);
    unsigned matched = 0;
    for (int round = 0; round < 200'000; ++round) {
        const std::string pattern = text(random, round % 2 == 0 ? "ab**" : "aab*.", 12);
        const std::string name = text(random, "aab", 14);
        ASSERT_EQ(trace_pattern(pattern).matches(name), plainly_matches(pattern, name)) << pattern << " on " << name;
        matched += trace_pattern(pattern).matches(name);
    }
    EXPECT_GT(matched, 10'000u);
}

TEST(trace_pattern, no_pattern_is_much_work) {
    constexpr std::size_t length = 1024;
    const std::string name = std::string(length, 'a');
    const std::string patterns[] = {"*" + std::string(length / 2, 'a') + "b",
                                    "*" + std::string(length / 2, 'a') + "b*",
                                    times(length / 4, "a*") + "b*",
                                    times(length / 2, "*a") + "*b*",
                                    "*" + times(length / 8, "aab*"),
                                    std::string(length, 'a'),
                                    std::string(length - 1, 'a') + "b",
                                    times(length / 4, "*aa") + "*",
                                    "*" + std::string(60, 'a') + "b" + std::string(60, 'a') + "*"};
    for (const std::string& pattern : patterns)
        for (const std::string& other :
             {name, times(length / 4, "aaab"), times(length / 61, std::string(60, 'a') + "c")})
            EXPECT_LE(work(pattern, other), 2 * other.size()) << pattern.substr(0, 20);
    std::mt19937 random(4712);
    for (int round = 0; round < 2000; ++round) {
        const std::string other = text(random, "aaab", 200);
        EXPECT_LE(work(text(random, "aaab*", 150), other), 2 * other.size());
    }
}

TEST(trace_pattern, covers_what_matches_no_more) {
    std::mt19937 random(4713);
    unsigned covered = 0;
    for (int round = 0; round < 3000; ++round) {
        const trace_pattern one(text(random, "ab*", 5)), other(text(random, "ab*", 5));
        if (!one.covers(other))
            continue;
        ++covered;
        for (int i = 0; i < 100; ++i)
            if (const std::string name = text(random, "ab", 7); other.matches(name)) {
                ASSERT_TRUE(one.matches(name)) << one.text() << " and " << other.text() << " on " << name;
            }
    }
    EXPECT_GT(covered, 100u);
}

// ---- the switches that a process remembers

uint32 last_error() {
    qorString ignored;
    return qorGetLastError(ignored);
}

TEST(trace_switches, are_replaced_and_limited) {
    ASSERT_TRUE(qorDebugEnableCode("*", false));
    const auto pattern = [](int i) { return "kept." + std::to_string(i) + ".*"; };
    for (int round = 0; round < 3; ++round)
        for (int i = 0; i < 256; ++i)
            ASSERT_TRUE(qorDebugEnableCode(pattern(i).c_str(), i % 2 == 0)) << i;
    qorClearLastError();
    // A switch "off" is stored only after a switch "on". The first one was on, so all 256 are stored.
    EXPECT_FALSE(qorDebugEnableCode("kept.more", true));
    EXPECT_EQ(last_error(), qorError_too_many_switches);
    EXPECT_FALSE(qor::glue::debug_is_on(qorDebugAllocateCode("kept.more")));
    // A name that already has a code needs no switch, and a pattern replaces the switches that it covers.
    EXPECT_TRUE(qorDebugEnableCode("kept.more", true));
    EXPECT_TRUE(qor::glue::debug_is_on(qorDebugAllocateCode("kept.more")));
    EXPECT_TRUE(qor::glue::debug_is_on(qorDebugAllocateCode("kept.254.x")));
    EXPECT_FALSE(qor::glue::debug_is_on(qorDebugAllocateCode("kept.255.x")));
    EXPECT_TRUE(qorDebugEnableCode("kept.1*", true));
    EXPECT_TRUE(qorDebugEnableCode("kept.other", true));
    EXPECT_TRUE(qorDebugEnableCode("*", false));
    for (int i = 0; i < 1000; ++i)
        ASSERT_TRUE(qorDebugEnableCode(pattern(i).c_str(), false)) << i;
    for (int i = 0; i < 256; ++i)
        ASSERT_TRUE(qorDebugEnableCode(pattern(i).c_str(), true)) << i;
    EXPECT_TRUE(qorDebugEnableCode("*", false));
}

// Threads allocate codes, common ones and others, while other threads set patterns. In any order of events, the last
// setting is in effect at the end.
TEST(trace_switches, what_was_said_last_counts_beside_new_codes) {
    ASSERT_TRUE(qorDebugEnableCode("*", false));
    constexpr int codes = 600;
    const auto name = [](int i) { return "race." + std::to_string(i % 7) + '.' + std::to_string(i); };
    std::vector<std::pair<std::string, bool>> said;
    std::mt19937 random(4714);
    for (int i = 0; i < 3000; ++i) {
        const std::string number = std::to_string(random() % 10);
        const std::string patterns[] = {"race." + number + ".*", "race.*" + number, "race.*" + number + "*", "race.*",
                                        name(static_cast<int>(random() % codes))};
        said.emplace_back(patterns[random() % (i % 50 == 0 ? 5 : 3)], random() % 2 == 0);
    }
    std::atomic<int> next = 0;
    std::vector<std::thread> all;
    for (int thread = 0; thread < 3; ++thread)
        all.emplace_back([&] {
            for (int i; (i = next++) < 2 * codes;)
                qorDebugAllocateCode(name(i / 2).c_str());
        });
    std::size_t count = 0;
    while (count < said.size() && (count < 100 || next < 2 * codes)) {
        const auto& [pattern, enable] = said[count++];
        EXPECT_TRUE(qorDebugEnableCode(pattern.c_str(), enable));
    }
    said.resize(count);
    for (std::thread& each : all)
        each.join();
    for (int i = 0; i < codes; ++i) {
        bool expected = false;
        for (const auto& [pattern, enable] : said)
            if (plainly_matches(pattern, name(i)))
                expected = enable;
        EXPECT_EQ(qor::glue::debug_is_on(qorDebugAllocateCode(name(i).c_str())), expected) << name(i);
    }
    EXPECT_TRUE(qorDebugEnableCode("*", false));
}

} // namespace
