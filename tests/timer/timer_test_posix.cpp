// Timers and forks, and what the thread of the timers does while nothing is due.
#include "qor/qor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

// The thread sanitizer takes a thread of a forked child for one of the parent's, and has a thread that wakes up.
#if !defined(__SANITIZE_THREAD__)

namespace {

using namespace std::chrono_literals;

// Ends the child with 0 if the condition holds.
template <class CHILD>
void expect_child(CHILD child) {
    const pid_t forked = fork();
    if (forked == 0)
        _exit(child() ? 0 : 1);
    int status = -1;
    waitpid(forked, &status, 0);
    EXPECT_EQ(status, 0);
}

bool calls_once() {
    qorGate gate(false);
    qorTimerId id = 0;
    return qorSetupTimer([&] { gate.Open(); }, {}, &id) && gate.Wait(60'000);
}

TEST(posix_timer, a_forked_child_has_none_and_makes_its_own) {
    std::atomic<int> calls{0};
    qorTimer timer;
    ASSERT_TRUE(timer.Every(1ms, [&] { ++calls; }));
    qorTimerId later = 0;
    ASSERT_TRUE(qorSetupTimer([] {}, {.delay = qorTicks(1h)}, &later));
    while (calls == 0)
        qorSleep(1);
    expect_child([&] {
        const int before = calls;
        qorSleep(20);
        return !qorCancelTimer(later) && calls == before && calls_once();
    });
    EXPECT_TRUE(qorCancelTimer(later));
    const int before = calls;
    while (calls == before)
        qorSleep(1);
}

// The address sanitizer's allocator does not release its own locks in a child.
#if !defined(__SANITIZE_ADDRESS__)
TEST(posix_timer, a_fork_during_cancellations_leaves_both_processes_whole) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i)
        threads.emplace_back([&] {
            while (!stop) {
                qorTimerId id = 0;
                ASSERT_TRUE(qorSetupTimer([] { std::this_thread::yield(); }, {.period = 1}, &id));
                std::this_thread::yield();
                EXPECT_TRUE(qorCancelTimer(id));
            }
        });
    for (int i = 0; i < 50; ++i)
        expect_child(calls_once);
    stop = true;
    for (std::thread& each : threads)
        each.join();
}
#endif

TEST(posix_timer, a_function_may_fork) {
    qorGate gate(false);
    std::atomic<int> status{-1};
    ASSERT_TRUE(qorSetupTimer(
        [&](const qorTimerTick& tick) {
            const pid_t child = fork();
            if (child == 0) {
                qorCancelTimer(tick.timer);
                _exit(calls_once() ? 3 : 4);
            }
            int ended = -1;
            waitpid(child, &ended, 0);
            status = ended;
            gate.Open();
        },
        {}));
    gate.Wait();
    EXPECT_EQ(WEXITSTATUS(status.load()), 3);
}

// The child's own end is reached on a thread, where the address sanitizer does not see what the others held.
#if !defined(__SANITIZE_ADDRESS__)
TEST(posix_timer, a_child_whose_function_returns_has_no_thread_left_and_ends) {
    qorGate gate(false);
    std::atomic<int> status{-1};
    ASSERT_TRUE(qorSetupTimer(
        [&] {
            const pid_t child = fork();
            if (child == 0)
                return;
            int ended = -1;
            waitpid(child, &ended, 0);
            status = ended;
            gate.Open();
        },
        {}));
    gate.Wait();
    EXPECT_EQ(status, 0);
}
#endif

// How often each thread of the process has been put to sleep by itself.
long sleeps() {
    long sum = 0;
    for (const auto& each : std::filesystem::directory_iterator("/proc/self/task")) {
        if (each.path().filename() == std::to_string(getpid()))
            continue; // this thread
        std::ifstream status(each.path() / "status");
        for (std::string line; std::getline(status, line);)
            if (line.starts_with("voluntary_ctxt_switches:"))
                sum += std::stol(line.substr(24));
    }
    return sum;
}

TEST(posix_timer, nothing_wakes_up_while_nothing_is_due) {
    std::vector<qorTimerId> ids(1000);
    for (qorTimerId& each : ids)
        ASSERT_TRUE(qorSetupTimer([] {}, {.delay = qorTicks(1h)}, &each));
    long before = sleeps();
    for (long again; qorSleep(20), (again = sleeps()) != before;)
        before = again; // other tests' threads come to rest
    qorSleep(300);
    EXPECT_EQ(sleeps(), before);
    for (const qorTimerId each : ids)
        EXPECT_TRUE(qorCancelTimer(each));
}

} // namespace

#endif
