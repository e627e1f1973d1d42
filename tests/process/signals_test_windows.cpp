// Console events as signals. They need a console: see in_terminal.py.
#include "signals_support.h"
#include "support/platform.h"

#include <windows.h>

namespace {

using qor::test::comes_true;
using qor::test::interrupt_process;
using recorder = qor::test::signal_recorder;

std::atomic<int> of_the_host{0};

BOOL WINAPI note(DWORD) {
    ++of_the_host;
    return TRUE;
}

} // namespace

TEST(signals, ctrl_c_is_delivered_on_an_ordinary_thread) {
    recorder handler;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    EXPECT_EQ(handler.references, 1);
    interrupt_process();
    handler.entered.Wait();
    EXPECT_TRUE(qorSetSignalHandler(nullptr));
    const qorStringArray texts = handler.take();
    ASSERT_EQ(texts.GetCount(), 1u);
    EXPECT_EQ(texts[0], recorder::text(qorSignal::interrupt));
    EXPECT_NE(handler.thread, std::this_thread::get_id());
    EXPECT_EQ(handler.references, 0);
}

TEST(signals, those_that_come_during_a_call_come_after_it) {
    recorder handler;
    handler.hold_up = true;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    for (int i = 0; i < 4; ++i)
        interrupt_process();
    handler.entered.Wait();
    EXPECT_EQ(handler.finished, 0);
    handler.hold_up = false;
    handler.go_on.Set();
    EXPECT_TRUE(comes_true([&handler] { return handler.finished == 4; })) << handler.finished;
    qorSetSignalHandler(nullptr);
}

TEST(signals, are_given_back_to_whoever_had_them_before) {
    ASSERT_NE(SetConsoleCtrlHandler(note, TRUE), 0);
    of_the_host = 0;
    recorder handler;
    for (int round = 1; round <= 3; ++round) {
        ASSERT_TRUE(qorSetSignalHandler(&handler));
        interrupt_process();
        handler.entered.Wait();
        ASSERT_TRUE(qorSetSignalHandler(nullptr));
        EXPECT_EQ(of_the_host, round - 1);
        interrupt_process();
        EXPECT_TRUE(comes_true([round] { return of_the_host == round; })) << of_the_host;
        EXPECT_EQ(handler.finished, round);
    }
    SetConsoleCtrlHandler(note, FALSE);
}

// Each event goes to one handler of the framework or to the host, whenever handlers change.
TEST(signals, add_up_when_the_handler_is_taken_away_at_once) {
    ASSERT_NE(SetConsoleCtrlHandler(note, TRUE), 0);
    of_the_host = 0;
    int sent = 0;
    int told = 0;
    for (int round = 0; round < 10; ++round) {
        recorder first;
        recorder second;
        ASSERT_TRUE(qorSetSignalHandler(&first));
        for (int i = 0; i < 4; ++i, ++sent)
            interrupt_process();
        ASSERT_TRUE(qorSetSignalHandler(&second));
        EXPECT_EQ(first.references, 0);
        for (int i = 0; i < 4; ++i, ++sent)
            interrupt_process();
        ASSERT_TRUE(qorSetSignalHandler(nullptr));
        EXPECT_EQ(second.references, 0);
        told += first.finished + second.finished;
    }
    EXPECT_TRUE(comes_true([&] { return told + of_the_host == sent; })) << told << ' ' << of_the_host << ' ' << sent;
    SetConsoleCtrlHandler(note, FALSE);
}

TEST(signals, what_is_ignored_stays_ignored) {
    recorder handler;
    ASSERT_NE(SetConsoleCtrlHandler(nullptr, TRUE), 0);
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    interrupt_process();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_NE(SetConsoleCtrlHandler(nullptr, FALSE), 0);
    EXPECT_EQ(handler.finished, 0);
    interrupt_process();
    handler.entered.Wait();
    qorSetSignalHandler(nullptr);
    EXPECT_EQ(handler.finished, 1);
}
