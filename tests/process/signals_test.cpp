// The signal handler and its lifetime, the same on every system. On Windows, signals need a console: see
// in_terminal.py.
#include "signals_support.h"
#include "support/platform.h"

using qor::test::comes_true;
using qor::test::interrupt_process;
using qor::test::signal_recorder;

TEST(signals, removing_a_handler_waits_for_its_running_call) {
    signal_recorder handler;
    handler.hold_up = true;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    interrupt_process();
    handler.entered.Wait();
    std::thread later([&handler] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        handler.go_on.Set();
    });
    qorSetSignalHandler(nullptr);
    EXPECT_EQ(handler.finished, 1);
    later.join();
}

TEST(signals, a_handler_may_remove_itself) {
    signal_recorder handler;
    handler.remove_itself = true;
    ASSERT_TRUE(qorSetSignalHandler(&handler));
    interrupt_process();
    handler.entered.Wait();
    qorSetSignalHandler(nullptr); // waits until the call has returned
    EXPECT_EQ(handler.finished, 1);
    EXPECT_TRUE(comes_true([&handler] { return handler.references == 0; })) << handler.references;
}

TEST(signals, a_handler_is_referenced_while_it_is_set) {
    signal_recorder first;
    signal_recorder second;
    ASSERT_TRUE(qorSetSignalHandler(&first));
    EXPECT_EQ(first.references, 1);
    ASSERT_TRUE(qorSetSignalHandler(&second));
    EXPECT_EQ(first.references, 0);
    EXPECT_EQ(second.references, 1);
    interrupt_process();
    second.entered.Wait();
    qorSetSignalHandler(nullptr);
    EXPECT_EQ(first.finished, 0);
    EXPECT_TRUE(comes_true([&second] { return second.references == 0; })) << second.references;
}

TEST(signals, a_handler_may_be_set_again) {
    signal_recorder handler;
    EXPECT_TRUE(qorSetSignalHandler(nullptr));
    EXPECT_TRUE(qorSetSignalHandler(&handler));
    EXPECT_TRUE(qorSetSignalHandler(&handler));
    EXPECT_EQ(handler.references, 1);
    interrupt_process();
    handler.entered.Wait();
    EXPECT_TRUE(qorSetSignalHandler(nullptr));
    EXPECT_EQ(handler.references, 0);
    EXPECT_EQ(handler.finished, 1);
}
