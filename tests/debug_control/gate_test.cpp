// Limits on connections, sessions and login attempts. The test controls the clock.
#include "channel/debug_gate.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using qor::control::gate;
using qor::control::moment;

std::string source(unsigned number) { return "source " + std::to_string(number); }

struct entered {
    gate::place place;
    gate::place loser;
};

entered enter(gate& door, const std::string& who, moment now) {
    entered result{};
    result.place = door.enter(who, now, result.loser);
    return result;
}

// Enters without displacing another connection.
gate::place simply(gate& door, const std::string& who, moment now) {
    const entered result = enter(door, who, now);
    EXPECT_NE(result.place, 0u) << who;
    EXPECT_EQ(result.loser, 0u) << who;
    return result.place;
}

bool is_turned_away(gate& door, const std::string& who, moment now) {
    const entered result = enter(door, who, now);
    EXPECT_EQ(result.loser, 0u) << who;
    return result.place == 0;
}

// Makes a wrong attempt if one is allowed.
bool try_wrong(gate& door, const std::string& who, const std::string& account, moment now) {
    moment next{};
    const bool may = door.may_try(who, account, now, next);
    if (may)
        door.count_wrong_try(who, account, now);
    else
        EXPECT_GT(next, now);
    return may;
}

moment next_try(gate& door, const std::string& who, const std::string& account, moment now) {
    moment next{};
    EXPECT_FALSE(door.may_try(who, account, now, next));
    return next;
}

// ---- places

TEST(gate, four_of_a_source) {
    gate door;
    const moment start{};
    const gate::place oldest = simply(door, "a", start);
    for (int i = 1; i < 4; ++i)
        simply(door, "a", start + 1s);
    EXPECT_TRUE(is_turned_away(door, "a", start + 4999ms));
    const gate::place b = simply(door, "b", start + 4999ms);
    // The oldest connection makes room for a new one of its source.
    const entered fifth = enter(door, "a", start + 5s);
    EXPECT_NE(fifth.place, 0u);
    EXPECT_EQ(fifth.loser, oldest);
    EXPECT_TRUE(is_turned_away(door, "a", start + 5s));
    door.leave(oldest); // it has left already
    EXPECT_TRUE(is_turned_away(door, "a", start + 5s));
    door.leave(b);
    EXPECT_TRUE(is_turned_away(door, "a", start + 5s));
    door.leave(fifth.place);
    simply(door, "a", start + 5s);
}

TEST(gate, who_has_the_most_makes_way) {
    gate door;
    const moment start{};
    std::vector<gate::place> places;
    for (unsigned i = 0; i < 32; ++i)
        places.push_back(simply(door, source(i % 8), start + i * 1ms));
    // The newcomer displaces connections at once, as long as its source has fewer even with the new one.
    for (unsigned i = 0; i < 3; ++i) {
        const entered newcomer = enter(door, "new", start + 40ms);
        EXPECT_NE(newcomer.place, 0u);
        EXPECT_EQ(newcomer.loser, places[i]);
    }
    // The newcomer would have as many as the others, so it waits until another connection is old enough.
    EXPECT_TRUE(is_turned_away(door, "new", start + 2999ms));
    const entered patient = enter(door, "new", start + 6s);
    EXPECT_NE(patient.place, 0u);
    // Frequent attempts of one source change nothing for sources with few connections.
    for (int i = 0; i < 1000; ++i)
        (void)enter(door, source(7), start + 7s);
    EXPECT_NE(enter(door, "another", start + 7s).place, 0u);
}

TEST(gate, a_crowd_of_single_ones_makes_way_in_time) {
    gate door;
    const moment start{};
    std::vector<gate::place> places;
    for (unsigned i = 0; i < 32; ++i)
        places.push_back(simply(door, source(i), start));
    EXPECT_TRUE(is_turned_away(door, "new", start + 4999ms));
    const entered newcomer = enter(door, "new", start + 5s);
    EXPECT_NE(newcomer.place, 0u);
    EXPECT_EQ(newcomer.loser, places[0]);
    // The newcomer keeps its place for its full time: 31 others are displaced first, then no connection for five
    // seconds.
    for (unsigned i = 1; i < 32; ++i)
        EXPECT_EQ(enter(door, source(100 + i), start + 5s).loser, places[i]);
    EXPECT_TRUE(is_turned_away(door, source(200), start + 9999ms));
    EXPECT_EQ(enter(door, source(200), start + 10s).loser, newcomer.place);
}

// ---- attempts

TEST(gate, twenty_wrong_tries_of_a_source_in_any_minute) {
    gate door;
    const moment start{};
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(try_wrong(door, "a", source(i % 10), start + i * 1s));
    EXPECT_EQ(next_try(door, "a", "ada", start + 59s), start + 60s);
    EXPECT_TRUE(try_wrong(door, "b", "ada", start + 59s));
    EXPECT_TRUE(try_wrong(door, "a", "ada", start + 60s));
    EXPECT_EQ(next_try(door, "a", "ada", start + 60s), start + 61s);
    door.forget(start + 60s);
    EXPECT_EQ(next_try(door, "a", "ada", start + 60s), start + 61s);
    door.forget(start + 61s);
    EXPECT_TRUE(try_wrong(door, "a", "ada", start + 61s));
}

// Twenty strangers can only make each of them, and anybody else who made a mistake, wait for a minute.
TEST(gate, tries_at_an_account) {
    gate door;
    const moment start{};
    for (unsigned i = 0; i < 20; ++i) {
        EXPECT_EQ(door.delay("ada", start), 0s);
        EXPECT_TRUE(try_wrong(door, source(i), "ada", start));
    }
    EXPECT_EQ(door.delay("ada", start), 2s);
    EXPECT_EQ(door.delay("bob", start), 0s);
    EXPECT_EQ(next_try(door, source(3), "ada", start + 1s), start + 60s);
    moment next{};
    EXPECT_TRUE(door.may_try(source(3), "bob", start + 1s, next));
    EXPECT_TRUE(door.may_try("owner", "ada", start + 1s, next));
    EXPECT_TRUE(try_wrong(door, "owner", "ada", start + 1s));
    // However many go on guessing, the owner waits no longer than that.
    for (unsigned i = 20; i < 500; ++i)
        EXPECT_TRUE(try_wrong(door, source(i), "ada", start + 30s));
    EXPECT_EQ(next_try(door, "owner", "ada", start + 30s), start + 61s);
    EXPECT_TRUE(door.may_try("owner", "ada", start + 61s, next));
    EXPECT_EQ(door.delay("ada", start + 89s), 2s);
    EXPECT_EQ(door.delay("ada", start + 90s), 0s);
}

// More sources than the gate remembers do not displace one with more attempts.
TEST(gate, a_crowd_does_not_push_out_who_has_tried) {
    gate door;
    const moment start{};
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(try_wrong(door, "a", "ada", start));
    for (unsigned i = 0; i < 5000; ++i)
        EXPECT_TRUE(try_wrong(door, source(i), source(i), start));
    EXPECT_EQ(next_try(door, "a", "ada", start), start + 60s);
    EXPECT_EQ(door.delay("ada", start), 2s);
}

// ---- sessions

TEST(gate, sessions_of_an_account_and_in_all) {
    gate door;
    for (int i = 0; i < 8; ++i)
        EXPECT_TRUE(door.begin_session("ada"));
    EXPECT_FALSE(door.begin_session("ada"));
    door.end_session("ada");
    EXPECT_TRUE(door.begin_session("ada"));
    for (unsigned i = 0; i < 56; ++i)
        EXPECT_TRUE(door.begin_session(source(i % 7)));
    EXPECT_FALSE(door.begin_session("bob"));
    door.end_session(source(0));
    EXPECT_TRUE(door.begin_session("bob"));
    EXPECT_FALSE(door.begin_session(source(0)));
}

} // namespace
