// POSIX signals. Each test has a process of its own.
#include "signals_support.h"

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using recorder = qor::test::signal_recorder;

struct named_signal {
    int number;
    qorSignal meaning;
};
constexpr named_signal all_signals[] = {{SIGINT, qorSignal::interrupt},
                                        {SIGTERM, qorSignal::terminate},
                                        {SIGHUP, qorSignal::hangup},
                                        {SIGQUIT, qorSignal::quit}};

void (*handling_of(int signal))(int) {
    struct sigaction now;
    sigaction(signal, nullptr, &now);
    return now.sa_handler;
}

TEST(signals, each_is_delivered_on_an_ordinary_thread) {
    recorder handler;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    for (const named_signal& each : all_signals) {
        kill(getpid(), each.number);
        handler.entered.Wait();
        const qorStringArray texts = handler.take();
        ASSERT_EQ(texts.GetCount(), 1u);
        EXPECT_EQ(texts[0], recorder::text(each.meaning));
        EXPECT_NE(handler.thread, std::this_thread::get_id());
    }
    EXPECT_TRUE(qorSetSignalHandler(nullptr));
}

// The host's threads do not know about us and block no signal.
TEST(signals, arrive_in_a_host_that_has_threads_already) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&stop] {
            while (!stop)
                std::this_thread::yield();
        });
    recorder handler;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    for (int round = 0; round < 50; ++round) {
        if (round % 2 == 0)
            kill(getpid(), SIGTERM);
        else
            pthread_kill(threads[static_cast<std::size_t>(round) % 4].native_handle(), SIGINT);
        handler.entered.Wait();
    }
    stop = true;
    for (std::thread& each : threads)
        each.join();
    qorSetSignalHandler(nullptr);
    EXPECT_EQ(handler.finished, 50);
}

// The kernel merges pending signals of one kind; all that it delivers reach the handler.
TEST(signals, those_that_come_during_a_call_come_after_it) {
    recorder handler;
    handler.hold_up = true;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    std::raise(SIGINT);
    handler.entered.Wait();
    std::raise(SIGTERM); // raise returns when the system's handler has run
    std::raise(SIGTERM);
    std::raise(SIGHUP);
    handler.hold_up = false;
    handler.go_on.Set();
    EXPECT_TRUE(qor::test::comes_true([&handler] { return handler.finished == 4; })) << handler.finished;
    qorSetSignalHandler(nullptr);
}

TEST(signals, where_a_handler_removed_itself_the_system_has_them) {
    recorder handler;
    handler.remove_itself = true;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    std::raise(SIGINT);
    handler.entered.Wait();
    qorSetSignalHandler(nullptr); // waits until the call has returned
    EXPECT_EQ(handling_of(SIGINT), SIG_DFL);
}

TEST(signals, are_given_back_to_whoever_had_them_before) {
    void (*const mine)(int) = [](int) {};
    std::signal(SIGHUP, mine);
    recorder handler;
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(qorSetSignalHandler(&handler));
        EXPECT_NE(handling_of(SIGHUP), mine);
        EXPECT_NE(handling_of(SIGINT), SIG_DFL);
        ASSERT_TRUE(qorSetSignalHandler(nullptr));
        EXPECT_EQ(handling_of(SIGHUP), mine);
        EXPECT_EQ(handling_of(SIGINT), SIG_DFL);
    }
}

TEST(signals, what_is_ignored_stays_ignored) {
    std::signal(SIGHUP, SIG_IGN);
    recorder handler;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    EXPECT_EQ(handling_of(SIGHUP), SIG_IGN);
    qorSetSignalHandler(nullptr);
    EXPECT_EQ(handling_of(SIGHUP), SIG_IGN);
}

TEST(signals, a_forked_child_has_the_systems_own_handling) {
    recorder handler;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    const pid_t child = fork();
    if (child == 0) {
        std::raise(SIGTERM);
        _exit(0); // somebody caught it
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    EXPECT_EQ(handler.finished, 0);
    std::raise(SIGTERM); // the parent still has its handler
    handler.entered.Wait();
    qorSetSignalHandler(nullptr);
    EXPECT_EQ(handler.finished, 1);
}

TEST(signals, error_numbers_of_interrupted_code_are_kept) {
    recorder handler;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    errno = 77;
    std::raise(SIGINT);
    EXPECT_EQ(errno, 77);
    handler.entered.Wait();
    qorSetSignalHandler(nullptr);
}

} // namespace
