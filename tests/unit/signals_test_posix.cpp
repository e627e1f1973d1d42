// Process signals and their handler. Each test has a process of its own.
#include "qor/qor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// Notes what it gets, with a lock and with memory, which an asynchronous handler could not use.
class recorder final : public IQORSignalHandler {
public:
    void AddRef() noexcept override { ++references; }
    void Release() noexcept override { --references; }
    int QueryInterface(const char*, void**) noexcept override { return 0; }

    void Signal(qorSignal signal) noexcept override {
        {
            qorAutoLockFastMutex2 hold(&lock);
            qorString text;
            text.Printf("signal %u", static_cast<unsigned>(signal));
            texts.Append(text);
            thread = std::this_thread::get_id();
        }
        if (remove_itself)
            qorSetSignalHandler(nullptr);
        entered.Set();
        if (hold_up)
            go_on.Wait();
        ++finished;
    }

    qorStringArray take() {
        qorAutoLockFastMutex2 hold(&lock);
        return std::move(texts);
    }

    std::atomic<int> references{0};
    std::atomic<int> finished{0};
    std::atomic<bool> hold_up{false};
    std::atomic<bool> remove_itself{false};
    qorTrigger entered{false};
    qorTrigger go_on{false};
    qorFastMutex2 lock;
    qorStringArray texts;
    std::thread::id thread;
};

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

TEST(Signals, EachIsDeliveredOnAnOrdinaryThread) {
    recorder handler;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    for (const named_signal& each : all_signals) {
        kill(getpid(), each.number);
        handler.entered.Wait();
        const qorStringArray texts = handler.take();
        ASSERT_EQ(texts.GetCount(), 1u);
        EXPECT_STREQ(texts[0], ("signal " + std::to_string(static_cast<unsigned>(each.meaning))).c_str());
        EXPECT_NE(handler.thread, std::this_thread::get_id());
    }
    EXPECT_TRUE(qorSetSignalHandler(nullptr));
}

// The host's threads know nothing of us and have every signal open.
TEST(Signals, ArriveInAHostThatHasThreadsAlready) {
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

// The kernel merges signals of one kind while it holds them back; what it hands over is not lost.
TEST(Signals, ThoseThatComeDuringACallComeAfterIt) {
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
    for (int rest = 0; handler.finished < 4 && rest < 1000; ++rest)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(handler.finished, 4);
    qorSetSignalHandler(nullptr);
}

TEST(Signals, RemovingAHandlerWaitsForItsRunningCall) {
    recorder handler;
    handler.hold_up = true;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    std::raise(SIGINT);
    handler.entered.Wait();
    std::thread later([&handler] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        handler.go_on.Set();
    });
    qorSetSignalHandler(nullptr);
    EXPECT_EQ(handler.finished, 1);
    later.join();
}

TEST(Signals, AHandlerMayRemoveItself) {
    recorder handler;
    handler.remove_itself = true;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    std::raise(SIGINT);
    handler.entered.Wait();
    qorSetSignalHandler(nullptr); // waits until the call is over
    EXPECT_EQ(handler.finished, 1);
    EXPECT_EQ(handling_of(SIGINT), SIG_DFL);
}

TEST(Signals, AHandlerIsReferencedWhileItIsSet) {
    recorder first;
    recorder second;
    ASSERT_TRUE(qorSetSignalHandler(&first));
    EXPECT_EQ(first.references, 1);
    ASSERT_TRUE(qorSetSignalHandler(&second));
    EXPECT_EQ(first.references, 0);
    EXPECT_EQ(second.references, 1);
    std::raise(SIGINT);
    second.entered.Wait();
    qorSetSignalHandler(nullptr);
    EXPECT_EQ(first.finished, 0);
    for (int rest = 0; second.references != 0 && rest < 1000; ++rest)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(second.references, 0);
}

TEST(Signals, AreGivenBackToWhoeverHadThemBefore) {
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

TEST(Signals, WhatIsIgnoredStaysIgnored) {
    std::signal(SIGHUP, SIG_IGN);
    recorder handler;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    EXPECT_EQ(handling_of(SIGHUP), SIG_IGN);
    qorSetSignalHandler(nullptr);
    EXPECT_EQ(handling_of(SIGHUP), SIG_IGN);
}

TEST(Signals, AForkedChildHasTheSystemsOwnHandling) {
    recorder handler;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    const pid_t child = fork();
    if (child == 0) {
        std::raise(SIGTERM);
        _exit(0); // it was caught by somebody
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    EXPECT_EQ(handler.finished, 0);
    std::raise(SIGTERM); // the parent still has it
    handler.entered.Wait();
    qorSetSignalHandler(nullptr);
    EXPECT_EQ(handler.finished, 1);
}

TEST(Signals, ErrorNumbersOfInterruptedCodeAreKept) {
    recorder handler;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    errno = 77;
    std::raise(SIGINT);
    EXPECT_EQ(errno, 77);
    handler.entered.Wait();
    qorSetSignalHandler(nullptr);
}

} // namespace
