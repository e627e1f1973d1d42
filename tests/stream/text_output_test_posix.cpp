// The order of output on both standard streams.
#include "qor/qor.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

namespace {

// A writing thread may hold the stream as long as nobody reads; here it holds it until the test ends.
TEST(text_for_standard_error, does_not_wait_for_another_thread) {
    flockfile(stdout);
    std::thread([] { EXPECT_TRUE(fputtext(stderr, "", 0)); }).join();
    funlockfile(stdout);
}

TEST(text_for_standard_error, leaves_the_reason_of_a_failure_alone) {
    errno = ENOSPC;
    EXPECT_TRUE(fputtext(stderr, "", 0));
    EXPECT_EQ(errno, ENOSPC);
    std::FILE* const file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    errno = ENOSPC;
    EXPECT_EQ(qor::glue::stream_terminal(file), -1);
    EXPECT_EQ(errno, ENOSPC);
    std::fclose(file);
}

} // namespace
