// Child processes on Linux: signals, descriptors, groups, and hosts that handle SIGCHLD themselves.
#include "child/start_posix.h"
#include "qor/qor.h"
#include "support/last_error.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

uint32 last_number() {
    qorString text;
    return qorGetLastError(text);
}

qorStringArray shell(const char* script) {
    qorStringArray words;
    for (const char* const each : {"/bin/sh", "-c", script})
        words.Append(each);
    return words;
}

qorChildResult run(const char* script, qorChildProcessOptions options = {}) {
    const qorStringArray words = shell(script);
    options.arguments = &words;
    qorChildResult result;
    EXPECT_TRUE(qorExecuteChildProcess(options, "", result)) << qor::test::last_error();
    return result;
}

TEST(posix_child, a_signal_that_ends_it_is_told) {
    const qorChildResult result = run("kill -TERM $$");
    EXPECT_EQ(result.end.signal, static_cast<uint32>(SIGTERM));
    EXPECT_EQ(result.end.code, 0u);
}

TEST(posix_child, has_the_umask_and_the_folder_and_leaves_the_own_ones) {
    const mode_t before = umask(022);
    umask(before);
    EXPECT_EQ(run("umask; pwd", {.folder = "/", .umask = 0137}).output, "0137\n/\n");
    const mode_t after = umask(before);
    EXPECT_EQ(after, before);
    EXPECT_NE(std::filesystem::current_path(), "/");
}

TEST(posix_child, has_only_the_descriptors_that_are_named) {
    const int plain = open("/dev/null", O_RDONLY); // inheritable
    const int named = open("/dev/zero", O_RDONLY | O_CLOEXEC);
    const int other = open("/dev/full", O_RDONLY);
    ASSERT_GE(other, 0);
    // The two change their numbers, and one gets a number beyond all others.
    const qorChildHandle handles[] = {{named, other}, {other, named}, {plain, 200}};
    const std::string links =
        "cd /proc/$$/fd; readlink " + std::to_string(other) + ' ' + std::to_string(named) + " 200";
    EXPECT_EQ(run(links.c_str(), {.handles = handles, .handle_count = 3}).output, "/dev/zero\n/dev/full\n/dev/null\n");
    EXPECT_EQ(run("exec ls /proc/self/fd").output, "0\n1\n2\n3\n"); // the last one is the folder
    for (const int each : {plain, named, other}) {
        EXPECT_GE(fcntl(each, F_GETFD), 0);
        close(each);
    }
}

TEST(posix_child, numbers_that_cannot_be_passed_are_refused) {
    const qorStringArray words = shell("exit 0");
    const int own = open("/dev/null", O_RDONLY);
    const auto refused = [&](std::vector<qorChildHandle> handles) {
        IQORChildProcess* made = nullptr;
        EXPECT_FALSE(qorCreateChildProcess(
            {.arguments = &words, .handles = handles.data(), .handle_count = static_cast<uint32>(handles.size())},
            &made));
        return last_number();
    };
    EXPECT_EQ(refused({{own, 1}}), uint32{qorError_child_handle_number});
    EXPECT_EQ(refused({{own, 7}, {own, 7}}), uint32{qorError_child_handle_number});
    EXPECT_EQ(refused({{-5, 7}}), uint32{qorError_child_handle});
    EXPECT_EQ(refused({{1ll << 40, 7}}), uint32{qorError_child_handle});
    EXPECT_EQ(refused({{own, 2'000'000'000}}), uint32{qorError_child_cannot_pass});
    close(own);
}

TEST(posix_child, works_where_the_own_streams_are_closed) {
    const pid_t child = fork();
    if (child == 0) {
        for (int i = 0; i < 3; ++i)
            close(i);
        qorChildResult result;
        const qorStringArray words = shell("cat; echo err >&2");
        const bool is_right = qorExecuteChildProcess({.arguments = &words}, "in", result) && result.output == "in" &&
                              result.errors == "err\n";
        _exit(is_right ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST(posix_child, signals_are_as_a_program_expects_them) {
    // In the timers' thread, all signals are blocked.
    std::string output;
    qorGate done(false);
    const auto before = std::signal(SIGPIPE, SIG_IGN);
    const auto hang_up = std::signal(SIGHUP, SIG_IGN);
    ASSERT_TRUE(qorSetupTimer(
        [&] {
            output = run("grep -E 'SigBlk|SigIgn' /proc/self/status").output;
            done.Open();
        },
        {}));
    done.Wait();
    std::signal(SIGPIPE, before);
    std::signal(SIGHUP, hang_up);
    EXPECT_EQ(output, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000001\n");
}

TEST(posix_child, a_whole_tree_ends_with_its_first) {
    // Without that, the streams would stay open for an hour.
    const qorChildResult result = run("sleep 3600 & echo begun", {.whole_tree = true});
    EXPECT_EQ(result.output, "begun\n");
    EXPECT_TRUE(result.end.IsSuccess());
}

TEST(posix_child, a_whole_tree_ends_with_its_object) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const qorStringArray words = shell("sleep 3600 & sleep 3600");
    const qorChildHandle handle = {ends[1], 9};
    zetSmartPointer<IQORChildProcess> child;
    ASSERT_TRUE(qorCreateChildProcess({.arguments = &words, .handles = &handle, .handle_count = 1, .whole_tree = true},
                                      child.Out()));
    close(ends[1]);
    child.Empty();
    char byte;
    EXPECT_EQ(read(ends[0], &byte, 1), 0); // nobody has the other end any more
    close(ends[0]);
}

TEST(posix_child, is_asked_to_end) {
    const qorStringArray words = shell("trap 'exit 5' TERM; echo; while :; do sleep 0.01; done");
    zetSmartPointer<IQORChildProcess> child;
    ASSERT_TRUE(qorCreateChildProcess({.arguments = &words, .output = {qorChildStreamKind::pipe}}, child.Out()));
    char byte;
    uint64 count = 0;
    EXPECT_TRUE(child->Read(qorChildOutput::output, &byte, 1, 0, count));
    EXPECT_TRUE(child->End(qorChildEnding::ask));
    qorChildEnd end;
    EXPECT_TRUE(child->Wait(end));
    EXPECT_EQ(end.code, 5u);
}

// With and without a pidfd, beside a host that reaps every child, and one that ignores them.
class posix_child_hosts : public testing::TestWithParam<bool> {
protected:
    posix_child_hosts() { qor::child::s_uses_pidfd = GetParam(); }
    ~posix_child_hosts() override { qor::child::s_uses_pidfd = true; }
};
INSTANTIATE_TEST_SUITE_P(pidfd, posix_child_hosts, testing::Bool());

TEST_P(posix_child_hosts, ends_are_told) {
    EXPECT_EQ(run("exit 4").end.code, 4u);
    EXPECT_EQ(run("kill -9 $$", {.whole_tree = true}).end.signal, 9u);
    const qorStringArray words = shell("sleep 3600");
    qorChildResult result;
    EXPECT_FALSE(qorExecuteChildProcess({.arguments = &words, .whole_tree = true, .time_limit = 20}, "", result));
    EXPECT_EQ(last_number(), uint32{qorError_child_timed_out});
    EXPECT_EQ(result.end.signal, 9u);
}

// The exit code is right, or is said to be unknown; nothing hangs.
void expect_end(const char* script, uint32 code) {
    const qorStringArray words = shell(script);
    qorChildResult result;
    if (qorExecuteChildProcess({.arguments = &words, .time_limit = 600'000}, "", result))
        EXPECT_EQ(result.end.code, code);
    else
        EXPECT_EQ(last_number(), uint32{qorError_child_end_unknown}) << qor::test::last_error();
    EXPECT_EQ(result.output, "x\n");
}

TEST_P(posix_child_hosts, a_host_may_ignore_its_children) {
    const auto before = std::signal(SIGCHLD, SIG_IGN);
    for (int i = 0; i < 5; ++i)
        expect_end("echo x; exit 6", 6);
    std::signal(SIGCHLD, before);
}

TEST_P(posix_child_hosts, a_host_may_wait_for_all_its_children) {
    std::atomic<bool> stop{false};
    std::thread host([&] {
        while (!stop) {
            waitpid(-1, nullptr, WNOHANG);
            std::this_thread::yield();
        }
    });
    for (int i = 0; i < 20; ++i)
        expect_end("echo x; exit 6", 6);
    stop = true;
    host.join();
}

volatile std::sig_atomic_t s_told = 0;

TEST(posix_child, a_failed_start_is_no_child_of_the_host) {
    s_told = 0;
    const auto before = std::signal(SIGCHLD, [](int) { s_told = s_told + 1; });
    qorChildResult result;
    EXPECT_FALSE(qorExecuteChildProcess({"/dev/null"}, result));
    EXPECT_EQ(qor::test::last_error(), "The program '/dev/null' cannot be started: Permission denied.");
    std::signal(SIGCHLD, before);
    EXPECT_EQ(s_told, 0);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST(posix_child, reasons_are_told) {
    const qor::test::temp_folder folder;
    const std::string script = folder.file("script", "#!/no/such/interpreter\n");
    const std::string text = folder.file("text", "neither\n");
    for (const std::string& each : {script, text})
        chmod(each.c_str(), 0755);
    qorChildResult result;
    EXPECT_FALSE(qorExecuteChildProcess({script.c_str()}, result));
    EXPECT_EQ(qor::test::last_error(), "The program '" + script +
                                           "' cannot be started: the interpreter or the loader that it names is "
                                           "missing.");
    EXPECT_FALSE(qorExecuteChildProcess({text.c_str()}, result));
    EXPECT_EQ(qor::test::last_error(), "The program '" + text +
                                           "' cannot be started: it is neither a program of this system nor a script "
                                           "that begins with '#!'.");
}

// The address sanitizer's allocator does not release its own locks in a child.
#if !defined(__SANITIZE_ADDRESS__)
TEST(posix_child, pipes_end_beside_forks) {
    std::atomic<bool> stop{false};
    // Each of these would hold the pipes open until it is told to end.
    std::thread forker([&] {
        std::vector<pid_t> forked;
        while (!stop && forked.size() < 200) {
            const pid_t child = fork();
            if (child == 0) {
                pause();
                _exit(0);
            }
            forked.push_back(child);
        }
        while (!stop)
            std::this_thread::yield();
        for (const pid_t each : forked) {
            kill(each, SIGKILL);
            waitpid(each, nullptr, 0);
        }
    });
    for (int i = 0; i < 100; ++i) {
        const qorStringArray words = shell("cat");
        qorChildResult result;
        EXPECT_TRUE(qorExecuteChildProcess({.arguments = &words, .time_limit = 600'000}, "abc", result));
        EXPECT_EQ(result.output, "abc");
    }
    stop = true;
    forker.join();
}
#endif

TEST(posix_child, belongs_to_the_process_that_has_started_it) {
    const qorStringArray words = shell("cat");
    zetSmartPointer<IQORChildProcess> child;
    ASSERT_TRUE(qorCreateChildProcess({.arguments = &words, .input = {qorChildStreamKind::pipe}, .whole_tree = true},
                                      child.Out()));
    const pid_t forked = fork();
    if (forked == 0) {
        qorChildEnd end;
        bool is_right = !child->Wait(end) && last_number() == qorError_child_of_another_process;
        is_right = is_right && !child->End(qorChildEnding::kill) && !child->IsRunning();
        child.Empty(); // kills nothing
        _exit(is_right ? 0 : 1);
    }
    int status = -1;
    waitpid(forked, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(child->IsRunning());
    child->CloseInput();
    qorChildEnd end;
    EXPECT_TRUE(child->Wait(end));
    EXPECT_TRUE(end.IsSuccess());
}

} // namespace
