// The loss of a connection: told once, with no lock held, and never after an end of one's own.
#include "loopback.h"
#include "support/load.h"

#include <iostream>
#include <memory>
#include <thread>

namespace {

using namespace qor::test;

class loss : public loopback_fixture {
protected:
    const int rounds = load(20, 1000);
};

TEST_F(loss, a_loss_is_told_once) {
    control_pointer control = connect();
    ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
    counting_sink sink;
    ASSERT_TRUE(control->SetSink(&sink));
    listener.Empty();
    sink.wait_for(1);
    qorStringArray out;
    EXPECT_FALSE(control->GetCodes(out));
    EXPECT_EQ(error_number(), qorError_debug_connection_lost);
    EXPECT_FALSE(control->SetSink(&sink));
    EXPECT_EQ(error_number(), qorError_debug_connection_lost);
    control.Empty();
    EXPECT_EQ(sink.count(), 1);
}

TEST_F(loss, an_end_of_ones_own_is_not_told) {
    counting_sink sink;
    for (int i = 0; i < rounds; ++i) {
        control_pointer control = connect();
        ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
        ASSERT_TRUE(control->SetSink(&sink));
        if (i % 2 == 0) {
            EXPECT_TRUE(control->Connect("127.0.0.1", port())) << last_error();
        }
    }
    listener.Empty();
    EXPECT_EQ(sink.count(), 0);
}

// Both at the same time: told once or not at all, and never after the release has returned.
TEST_F(loss, a_loss_beside_a_release) {
    for (int i = 0; i < rounds; ++i) {
        control_pointer control = connect();
        ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
        auto sink = std::make_unique<counting_sink>();
        ASSERT_TRUE(control->SetSink(sink.get()));
        std::thread loser([&] { listener.Empty(); });
        control.Empty();
        EXPECT_LE(sink->count(), 1);
        sink.reset();
        loser.join();
        listen(port());
    }
}

// No lock is held: the sink may release the control, and so end the very thread that calls it.
TEST_F(loss, a_sink_may_release_the_control) {
    for (int i = 0; i < rounds; ++i) {
        control_pointer control = connect();
        ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
        counting_sink sink;
        sink.act = [&control] { control.Empty(); };
        ASSERT_TRUE(control->SetSink(&sink));
        listener.Empty();
        sink.wait_for(1);
        EXPECT_TRUE(control.IsEmpty());
        listen(port());
    }
}

} // namespace
