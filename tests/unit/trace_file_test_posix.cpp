// Floods of trace lines, forks and what is no file on a disk.
#include "trace_flood.h"

#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using qor::test::temp_folder;
using qor::test::flood::all_bodies;
using qor::test::flood::bodies;
using qor::test::flood::expected;
using qor::test::flood::lines;
using qor::test::flood::play;
using qor::test::flood::rests;
using qor::test::flood::scene;
using qor::test::flood::start;
using qor::test::flood::trace;
using qor::test::flood::trace_flood;
using qor::test::flood::words;

namespace {

const scene aborted{"flood_aborted", [](const words& arguments) {
                        start(arguments[0]);
                        trace(lines);
                        std::signal(SIGABRT, SIG_DFL);
                        std::abort();
                        return 0;
                    }};

const scene without_exit{"flood_without_exit", [](const words& arguments) {
                             start(arguments[0]);
                             trace(lines);
                             _exit(0);
                             return 0;
                         }};

// Parent and child go on in the same file, each with what it traced itself.
const scene forked{"flood_forked", [](const words& arguments) {
                       start(arguments[0]);
                       trace(lines);
                       const pid_t child = fork();
                       trace(lines);
                       if (child == 0)
                           _exit(0);
                       waitpid(child, nullptr, 0);
                       return 0;
                   }};

} // namespace

TEST_F(trace_flood, of_a_process_that_ends_without_a_word_is_not_lost) {
    for (const auto& [each, code] : {std::pair(&aborted, 128 + SIGABRT), std::pair(&without_exit, 0)}) {
        const temp_folder folder;
        EXPECT_EQ(play(*each, {folder / "trace"}).code, code);
        EXPECT_EQ(all_bodies(folder.path()), expected());
    }
}

TEST_F(trace_flood, of_parent_and_child_is_written_once) {
    EXPECT_EQ(play(forked, {m_path}).code, 0);
    words all = all_bodies(m_folder.path());
    words three_times;
    for (int i = 0; i < 3; ++i)
        std::ranges::copy(expected(), std::back_inserter(three_times));
    std::ranges::sort(all);
    std::ranges::sort(three_times);
    EXPECT_TRUE(all == three_times) << all.size();
}

TEST_F(trace_flood, into_a_pipe_is_there_at_once) {
    ASSERT_EQ(mkfifo(m_path.c_str(), 0600), 0);
    const int end = open(m_path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(end, 0);
    start(m_path);
    trace(300);
    std::string text(65536, '\0');
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(read(end, text.data(), text.size()), 0)));
    EXPECT_EQ(bodies(text), expected(300));
    EXPECT_TRUE(qorDebugEnableCode("flood", false));
    EXPECT_TRUE(qorDebugAttachFile(nullptr));
    close(end);
    EXPECT_EQ(rests(m_folder.path()), words{});
}
