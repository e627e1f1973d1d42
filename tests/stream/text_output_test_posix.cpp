// The order of output on both standard streams.
#include "stream/terminal.h"
#include "stream/text_output.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

namespace {

// A writing thread may hold the stream as long as nobody reads; here it holds it until the test ends.
TEST(text_for_standard_error, does_not_wait_for_another_thread) {
    flockfile(stdout);
    std::thread([] { EXPECT_TRUE(qor::stream::write_text(stderr, "")); }).join();
    funlockfile(stdout);
}

TEST(text_for_standard_error, leaves_the_reason_of_a_failure_alone) {
    errno = ENOSPC;
    EXPECT_TRUE(qor::stream::write_text(stderr, ""));
    EXPECT_EQ(errno, ENOSPC);
    std::FILE* const file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    errno = ENOSPC;
    EXPECT_FALSE(qor::stream::is_terminal(file));
    EXPECT_EQ(errno, ENOSPC);
    std::fclose(file);
}

} // namespace
