#include "running.h"
#include "support/platform.h"
#include "support/scenes.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

using qor::heap_tool::is_running;

namespace {

const qor::test::scene ending{"running_ending", [](const qor::test::words&) {
                                  std::fputs(qor::test::process_id().c_str(), stdout);
                                  return 0;
                              }};

} // namespace

TEST(running, tells_whether_a_process_has_ended) {
    EXPECT_TRUE(is_running(std::stoull(qor::test::process_id())));
    const qor::test::ending ended = qor::test::play(ending);
    ASSERT_NE(ended.out, "");
    EXPECT_FALSE(is_running(std::stoull(ended.out)));
}

TEST(running, knows_no_process_beyond_the_numbers_of_the_system) {
    EXPECT_FALSE(is_running((uint64{1} << 32) + std::stoull(qor::test::process_id())));
    EXPECT_FALSE(is_running(~uint64{0}));
}
