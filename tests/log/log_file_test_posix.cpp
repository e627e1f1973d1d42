// The log in files that cannot be written, and in forked processes.
#include "qor/qor.h"
#include "support/platform.h"
#include "support/scenes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace qor::test;

constexpr int flood = 5'000;

void send_many(int count = flood) {
    for (int i = 0; i < count; ++i)
        qorSendLogText(qorLogLevel::info, "a text");
}

words lines_of(const std::string& text) {
    words lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

// A limit on files would send a signal that ends the process. Once there is room again, a notice tells what is missing.
const scene limited{"log_limited", [](const words& arguments) {
                        EXPECT_TRUE(qorSetLogTarget(arguments[0].c_str()));
                        const rlimit before{5000, RLIM_INFINITY};
                        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
                        send_many(300);
                        const rlimit after{RLIM_INFINITY, RLIM_INFINITY};
                        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &after), 0);
                        const uint64 dropped = qorGetDroppedLogCount();
                        EXPECT_GT(dropped, 100u);
                        std::printf("%llu", static_cast<unsigned long long>(dropped));
                        qorCleanup();
                        EXPECT_EQ(qorGetDroppedLogCount(), dropped);
                        return 0;
                    }};

const scene full{"log_full", [](const words&) {
                     EXPECT_TRUE(qorSetLogTarget("/dev/full"));
                     send_many(7);
                     qorCleanup();
                     return 0;
                 }};

const scene full_at_exit{"log_full_at_exit", [](const words&) {
                             EXPECT_TRUE(qorSetLogTarget("/dev/full"));
                             send_many(7);
                             return 0;
                         }};

const scene no_stderr{"log_no_stderr", [](const words&) {
                          EXPECT_TRUE(qorSetLogTarget("stderr"));
                          const int kept = dup(STDERR_FILENO);
                          close(STDERR_FILENO);
                          send_many(3);
                          EXPECT_EQ(qorGetDroppedLogCount(), 3u);
                          dup2(kept, STDERR_FILENO);
                          send_many(1);
                          qorCleanup();
                          return 0;
                      }};

const scene forked{"log_forked", [](const words& arguments) {
                       EXPECT_TRUE(qorSetLogTarget(arguments[0].c_str()));
                       send_many();
                       const pid_t child = fork();
                       send_many();
                       if (child == 0)
                           std::exit(0);
                       int status = 1;
                       waitpid(child, &status, 0);
                       return status;
                   }};

// Entries for the system's log go wherever this host's go; here it is only that nobody hangs and nobody is harmed.
const scene forked_in_the_middle{"log_forked_in_the_middle", [](const words&) {
                                     const pid_t parent = getpid();
                                     for (int i = 0; i < 20; ++i) {
                                         qorSendLogText(qorLogLevel::info, "a text of a test");
                                         const pid_t child = fork();
                                         if (child == 0) {
                                             qorSendLogText(qorLogLevel::info, "a text of a test");
                                             _exit(getpid() == parent);
                                         }
                                         int status = 1;
                                         waitpid(child, &status, 0);
                                         EXPECT_EQ(status, 0);
                                     }
                                     return 0;
                                 }};

} // namespace

TEST(posix_log_file, that_has_reached_its_limit_ends_nobody) {
    const temp_folder folder;
    const ending ended = play(limited, {folder / "log"});
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
    EXPECT_EQ(ended.err, "");
    const words lines = lines_of(read_file(folder / "log"));
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(lines.back().ends_with(" warning -: " + ended.out + " log entries were dropped.")) << lines.back();
    const auto whole = std::ranges::count_if(lines, [](const std::string& line) { return line.ends_with(": a text"); });
    EXPECT_EQ(whole + std::stoi(ended.out), 300);
}

TEST(posix_log_file, that_takes_nothing_is_said_on_standard_error) {
    QOR_NEEDS_FULL_DISK();
    for (const scene* const each : {&full, &full_at_exit}) {
        const ending ended = play(*each);
        EXPECT_EQ(ended.code, 0);
        EXPECT_TRUE(ended.err.ends_with(" warning -: 7 log entries were dropped.\n")) << ended.err;
        EXPECT_EQ(std::ranges::count(ended.err, '\n'), 1) << ended.err;
    }
}

TEST(posix_log_file, counts_what_a_closed_standard_error_does_not_take) {
    const ending ended = play(no_stderr);
    EXPECT_EQ(ended.code, 0) << ended.out;
    const words lines = lines_of(ended.err);
    ASSERT_EQ(lines.size(), 2u) << ended.err;
    EXPECT_TRUE(lines[0].ends_with(": a text"));
    EXPECT_TRUE(lines[1].ends_with(": 3 log entries were dropped."));
}

TEST(posix_log_file, has_the_entries_of_parent_and_child_once) {
    const temp_folder folder;
    const ending ended = play(forked, {folder / "log"});
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
    const words lines = lines_of(read_file(folder / "log"));
    EXPECT_EQ(lines.size(), 3u * flood);
    EXPECT_TRUE(std::ranges::all_of(lines, [](const std::string& line) { return line.ends_with(": a text"); }));
}

TEST(posix_log_file, forks_beside_the_systems_log_hang_nobody) {
    const ending ended = play(forked_in_the_middle);
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
}
