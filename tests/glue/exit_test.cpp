// The end of a process whose other threads are in the middle of tracing and allocating. On Windows, the system ends
// these threads before it calls the library's exit handlers, so that they may hold locks.
#include "qor/qor.h"
#include "support/scenes.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <thread>

namespace {

using qor::test::scene;
using qor::test::words;

// The second argument is the number of milliseconds until the process ends.
const scene busy{"exit_busy", [](const words& arguments) {
                     EXPECT_TRUE(qorDebugAttachFile(arguments[0].c_str()));
                     EXPECT_TRUE(qorDebugEnableCode("exit", true));
                     for (int i = 0; i < 3; ++i)
                         std::thread([code = qorDebugAllocateCode("exit")] {
                             for (;;) {
                                 qorDebug(code, "%s", "line");
                                 qor_do_free(qor_do_malloc(0, 10, true, "place", 1), "place", 2);
                             }
                         }).detach();
                     std::this_thread::sleep_for(std::chrono::milliseconds(std::stoi(arguments[1])));
                     std::exit(0);
                     return 1;
                 }};

} // namespace

TEST(exit, ends_while_other_threads_trace_and_allocate) {
    const qor::test::temp_folder folder;
    std::size_t traced = 0;
    for (int i = 0; i < 10; ++i) {
        const std::string number = std::to_string(i);
        const qor::test::ending ended =
            qor::test::play(busy, {folder / ("trace" + number), number}, {"QOR_MEMCHECK=" + folder / ("log" + number)});
        EXPECT_EQ(ended.code, 0) << ended.err;
        traced += qor::test::read_file(folder / ("trace" + number)).size();
    }
    EXPECT_NE(traced, 0u);
}
