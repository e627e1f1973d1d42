// Console events as signals. They need a console: see in_terminal.py.
#include "qor/qor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <windows.h>

namespace {

// Notes what it gets, with a lock and with memory, on a thread of the library.
class recorder final : public IQORSignalHandler {
public:
    void AddRef() noexcept override { ++references; }
    void Release() noexcept override { --references; }
    int QueryInterface(const char*, void**) noexcept override { return 0; }

    void Signal(qorSignal signal) noexcept override {
        {
            qorAutoLockFastMutex2 hold(&lock);
            texts.Append(signal == qorSignal::interrupt ? "interrupt" : "another");
            thread = std::this_thread::get_id();
        }
        entered.Set();
        if (hold_up)
            go_on.Wait();
        ++finished;
    }

    std::atomic<int> references{0};
    std::atomic<int> finished{0};
    std::atomic<bool> hold_up{false};
    qorTrigger entered{false};
    qorTrigger go_on{false};
    qorFastMutex2 lock;
    qorStringArray texts;
    std::thread::id thread;
};

std::atomic<int> of_the_host{0};

BOOL WINAPI note(DWORD) {
    ++of_the_host;
    return TRUE;
}

void send_ctrl_c() { ASSERT_NE(GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0), 0) << GetLastError(); }

template <class CONDITION>
bool comes_true(CONDITION condition) {
    for (int rest = 0; !condition() && rest < 1000; ++rest)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return condition();
}

} // namespace

TEST(Signals, CtrlCIsDeliveredOnAnOrdinaryThread) {
    recorder handler;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    EXPECT_EQ(handler.references, 1);
    send_ctrl_c();
    handler.entered.Wait();
    EXPECT_TRUE(qorSetSignalHandler(nullptr));
    ASSERT_EQ(handler.texts.GetCount(), 1u);
    EXPECT_STREQ(handler.texts[0], "interrupt");
    EXPECT_NE(handler.thread, std::this_thread::get_id());
    EXPECT_EQ(handler.references, 0);
}

TEST(Signals, ThoseThatComeDuringACallComeAfterIt) {
    recorder handler;
    handler.hold_up = true;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    for (int i = 0; i < 4; ++i)
        send_ctrl_c();
    handler.entered.Wait();
    EXPECT_EQ(handler.finished, 0);
    handler.hold_up = false;
    handler.go_on.Set();
    EXPECT_TRUE(comes_true([&handler] { return handler.finished == 4; })) << handler.finished;
    qorSetSignalHandler(nullptr);
}

TEST(Signals, RemovingAHandlerWaitsForItsRunningCall) {
    recorder handler;
    handler.hold_up = true;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    send_ctrl_c();
    handler.entered.Wait();
    std::thread later([&handler] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        handler.go_on.Set();
    });
    qorSetSignalHandler(nullptr);
    EXPECT_EQ(handler.finished, 1);
    later.join();
}

TEST(Signals, AreGivenBackToWhoeverHadThemBefore) {
    ASSERT_NE(SetConsoleCtrlHandler(note, TRUE), 0);
    of_the_host = 0;
    recorder handler;
    for (int round = 1; round <= 3; ++round) {
        ASSERT_TRUE(qorSetSignalHandler(&handler));
        send_ctrl_c();
        handler.entered.Wait();
        ASSERT_TRUE(qorSetSignalHandler(nullptr));
        EXPECT_EQ(of_the_host, round - 1);
        send_ctrl_c();
        EXPECT_TRUE(comes_true([round] { return of_the_host == round; })) << of_the_host;
        EXPECT_EQ(handler.finished, round);
    }
    SetConsoleCtrlHandler(note, FALSE);
}

TEST(Signals, WhatIsIgnoredStaysIgnored) {
    recorder handler;
    ASSERT_NE(SetConsoleCtrlHandler(nullptr, TRUE), 0);
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    send_ctrl_c();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_NE(SetConsoleCtrlHandler(nullptr, FALSE), 0);
    EXPECT_EQ(handler.finished, 0);
    send_ctrl_c();
    handler.entered.Wait();
    qorSetSignalHandler(nullptr);
    EXPECT_EQ(handler.finished, 1);
}
