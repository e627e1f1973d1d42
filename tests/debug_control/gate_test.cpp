// How many may try to log in, and how often; the clock is the test's.
#include "debug_gate.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using qor::control::gate;
using qor::control::moment;

// Never turns anyone away by lot, but where it must.
unsigned lucky(unsigned below) { return below - 1; }

std::string neighbour(unsigned number) { return "neighbour " + std::to_string(number); }

TEST(gate, four_of_a_neighbour) {
    gate door(lucky);
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(door.enter("a"));
    EXPECT_FALSE(door.enter("a"));
    EXPECT_TRUE(door.enter("b"));
    door.leave("a");
    EXPECT_TRUE(door.enter("a"));
    EXPECT_FALSE(door.enter("a"));
}

TEST(gate, thirty_two_in_all) {
    gate door(lucky);
    for (unsigned i = 0; i < 32; ++i)
        EXPECT_TRUE(door.enter(neighbour(i))) << i;
    EXPECT_FALSE(door.enter("one more"));
    door.leave(neighbour(7));
    EXPECT_TRUE(door.enter("one more"));
}

// From 24 on the lot decides, more and more against the newcomer.
TEST(gate, turns_some_away_when_it_is_nearly_full) {
    unsigned drawn = 0;
    gate door([&drawn](unsigned below) {
        EXPECT_EQ(below, 9u);
        return drawn;
    });
    for (unsigned i = 0; i < 24; ++i)
        EXPECT_TRUE(door.enter(neighbour(i)));
    for (unsigned waiting = 24; waiting < 32; ++waiting) {
        drawn = waiting - 24;
        EXPECT_FALSE(door.enter(neighbour(waiting))) << waiting;
        drawn = waiting - 24 + 1;
        EXPECT_TRUE(door.enter(neighbour(waiting))) << waiting;
    }
}

TEST(gate, twenty_tries_in_any_minute) {
    gate door(lucky);
    const moment start{};
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(door.take_try("a", start + i * 1s));
    EXPECT_FALSE(door.take_try("a", start + 59s));
    EXPECT_EQ(door.next_try("a"), start + 60s);
    EXPECT_TRUE(door.take_try("b", start + 59s));
    EXPECT_TRUE(door.take_try("a", start + 60s));
    EXPECT_FALSE(door.take_try("a", start + 60s));
    EXPECT_EQ(door.next_try("a"), start + 61s);
}

TEST(gate, tries_count_over_connections) {
    gate door(lucky);
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(door.enter("a"));
        EXPECT_TRUE(door.take_try("a", moment()));
        door.leave("a");
    }
    EXPECT_TRUE(door.enter("a"));
    EXPECT_FALSE(door.take_try("a", moment()));
    door.forget(moment() + 59s);
    EXPECT_FALSE(door.take_try("a", moment() + 59s));
    door.forget(moment() + 60s);
    EXPECT_TRUE(door.take_try("a", moment() + 60s));
}

TEST(gate, a_try_that_was_right_does_not_count) {
    gate door(lucky);
    for (int i = 0; i < 1000; ++i) {
        EXPECT_TRUE(door.take_try("a", moment()));
        door.give_back_try("a");
    }
}

// Who has more addresses than there are records is not let in any faster, and costs no more memory.
TEST(gate, a_crowd_does_not_push_out_who_is_waiting) {
    gate door(lucky);
    EXPECT_TRUE(door.enter("a"));
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(door.take_try("a", moment()));
    for (unsigned i = 0; i < 5000; ++i) {
        EXPECT_TRUE(door.enter(neighbour(i)));
        EXPECT_TRUE(door.take_try(neighbour(i), moment()));
        door.leave(neighbour(i));
    }
    EXPECT_FALSE(door.take_try("a", moment()));
}

} // namespace
