// Floods of trace lines with forks, and into files that are not on a disk.
#include "trace_flood.h"

#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace qor::test;
using namespace qor::test::flood;

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

// Parent and child continue in the same file, each with its own lines.
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

// Closes all descriptors, as a daemon does. Each number then belongs to another file, and no trace may get into it.
const scene closes_everything{"flood_closes_everything", [](const words& arguments) {
                                  start(arguments[0]);
                                  trace(lines);
                                  // The thread that writes floods must have finished: the next line, which belongs to
                                  // another period, waits for its lock.
                                  while (bodies(read_file(arguments[0])).size() != lines)
                                      usleep(1000);
                                  usleep(20'000);
                                  trace(1);
                                  if (arguments[1] == "close")
                                      close_range(3, ~0u, 0);
                                  const int own = open((arguments[0] + ".own").c_str(), O_RDWR | O_CREAT, 0600);
                                  for (int i = 3; i < 100; ++i)
                                      if (arguments[1] == "reuse" && i != own)
                                          dup2(own, i);
                                  trace(lines);
                                  return lseek(own, 0, SEEK_END) == 0 ? 0 : 1;
                              }};

const scene closes_a_pipe{"flood_closes_a_pipe", [](const words& arguments) {
                              start(arguments[0]);
                              trace(1);
                              const int own = open((arguments[0] + ".own").c_str(), O_RDWR | O_CREAT, 0600);
                              for (int i = 3; i < 100; ++i)
                                  if (i != own)
                                      dup2(own, i);
                              trace(lines);
                              return lseek(own, 0, SEEK_END) == 0 ? 0 : 1;
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

TEST_F(trace_flood, goes_on_when_the_host_closes_its_descriptor) {
    for (const char* const what : {"close", "reuse"}) {
        const temp_folder folder;
        const std::string path = folder / "trace";
        const ending ended = play(closes_everything, {path, what});
        EXPECT_EQ(ended.code, 0) << what << ended.out << ended.err;
        EXPECT_EQ(ended.err, "");
        EXPECT_EQ(bodies(read_file(path)).size(), static_cast<std::size_t>(2 * lines + 1)) << what;
        EXPECT_EQ(read_file(path + ".own").size(), 0u) << what;
    }
}

// Opening a pipe anew would make the host wait for a reader.
TEST_F(trace_flood, into_a_pipe_ends_when_the_host_closes_its_descriptor) {
    ASSERT_EQ(mkfifo(m_path.c_str(), 0600), 0);
    const int end = open(m_path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(end, 0);
    const ending ended = play(closes_a_pipe, {m_path});
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
    std::string text(65536, '\0');
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(read(end, text.data(), text.size()), 0)));
    EXPECT_EQ(bodies(text), expected(1));
    EXPECT_EQ(read_file(m_path + ".own").size(), 0u);
    close(end);
}
