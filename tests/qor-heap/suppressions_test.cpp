// Patterns and files of suppressions.
#include "suppressions.h"

#include <gtest/gtest.h>

namespace {

using namespace qor::heap_tool;
using qor::heap::profile;

TEST(patterns, match) {
    EXPECT_TRUE(matches_pattern("", ""));
    EXPECT_TRUE(matches_pattern("", "*"));
    EXPECT_TRUE(matches_pattern("libstdc++.so.6", "libstdc++.so.*"));
    EXPECT_TRUE(matches_pattern("/usr/lib/libc.so.6", "*/libc.so.?"));
    EXPECT_TRUE(matches_pattern("abcabc", "*abc"));
    EXPECT_TRUE(matches_pattern("aXbXc", "a*b*c"));
    EXPECT_FALSE(matches_pattern("", "?"));
    EXPECT_FALSE(matches_pattern("abc", "ab"));
    EXPECT_FALSE(matches_pattern("abc", "abcd"));
    EXPECT_FALSE(matches_pattern("abc", "*d*"));
    // No pattern takes exponential time.
    EXPECT_FALSE(matches_pattern(std::string(1000, 'a'), "*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*a*b"));
}

class suppressed_places : public testing::Test {
protected:
    suppressed_places() {
        of.texts = {"", "src/pool.cpp"};
        of.modules.resize(3);
        of.modules[1].path = "/lib/libpool.so";
        of.modules[2].path = "/bin/app";
        of.frames = {{}, {2, 0x10}, {1, 0x20}};
        of.nodes = {{}, {0, 1}, {1, 2}}; // app calls libpool
        place.node = 2;
        place.file = 1;
        place.live = {300, 3};
        names.resize(3);
        names[2] = {{"pool::(anonymous namespace)::grow()", "", 0}};
    }

    bool matches(std::string_view text) const {
        suppressions rules;
        EXPECT_EQ(rules.add(text), 0u) << text;
        return rules.matches(named_profile(of, names, false), place);
    }

    profile of;
    profile::place place;
    named_profile::symbol_names names;
};

TEST_F(suppressed_places, are_found_by_function_object_and_file) {
    EXPECT_TRUE(matches("function \"pool::(anonymous namespace)::*\""));
    EXPECT_TRUE(matches("object */libpool.so"));
    EXPECT_TRUE(matches("object /bin/app\n"));
    EXPECT_TRUE(matches("file src/pool.cpp"));
    EXPECT_TRUE(matches("\n# comment\n\nobject nothing\n  object\t/bin/app   # the program\r\n"));
    EXPECT_FALSE(matches(""));
    EXPECT_FALSE(matches("object nothing"));
}

TEST_F(suppressed_places, match_all_conditions_of_a_line_in_one_frame) {
    EXPECT_TRUE(matches("object */libpool.so function *grow* file src/*"));
    EXPECT_FALSE(matches("object /bin/app function *grow*"));
    EXPECT_TRUE(matches("innermost object */libpool.so"));
    EXPECT_FALSE(matches("innermost object /bin/app"));
}

TEST_F(suppressed_places, may_have_a_size) {
    EXPECT_TRUE(matches("object */libpool.so size 100"));
    EXPECT_FALSE(matches("object */libpool.so size 300"));
    EXPECT_TRUE(matches("size 100"));
}

TEST(suppressions, name_the_line_that_is_wrong) {
    for (const char* const bad :
         {"object", "innermost", "colour x", "object a function", "size", "size 0", "size 1x", "size -1"}) {
        suppressions rules;
        EXPECT_EQ(rules.add("# one\n\nobject a\n" + std::string(bad)), 4u) << bad;
    }
}

TEST(suppressions, of_the_system_are_good) {
    suppressions rules;
    EXPECT_EQ(rules.add(built_in_suppressions), 0u);
}

} // namespace
