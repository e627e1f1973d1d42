// Loss of a connection: reported once, with no lock held, and never after the client has ended the connection itself.
#include "breaking_proxy.h"
#include "loopback.h"
#include "support/load.h"

#include <array>
#include <iostream>
#include <memory>
#include <thread>

namespace {

using namespace qor::test;

// Ways to lose the connection of a console behind a proxy.
enum class way { listener_ends, closed, reset };
constexpr std::array ways{way::listener_ends, way::closed, way::reset};

class loss : public loopback_fixture {
protected:
    control_pointer connect_through_proxy() {
        control_pointer made = make();
        EXPECT_TRUE(made->Connect("127.0.0.1", proxy.port())) << last_error();
        return made;
    }

    control_pointer log_in() {
        control_pointer made = connect_through_proxy();
        EXPECT_TRUE(made->Login("ada", "secret")) << last_error();
        return made;
    }

    void lose(way how) {
        if (how == way::listener_ends)
            listener.Empty();
        else
            proxy.break_off(how == way::reset);
    }

    // Restores the connection for the next round.
    void mend() {
        if (listener.IsEmpty())
            listen(port());
    }

    static way way_of(int round) { return ways[static_cast<std::size_t>(round) % ways.size()]; }

    const int rounds = load(20, 1000);
    breaking_proxy proxy{port()};
};

void expect_lost(bool done, const char* operation) {
    EXPECT_FALSE(done) << operation;
    EXPECT_EQ(error_number(), qorError_debug_connection_lost) << operation << ": " << last_error();
}

TEST_F(loss, is_told_once) {
    int told = 0;
    for (int i = 0; i < rounds; ++i) {
        control_pointer control = log_in();
        counting_sink sink;
        ASSERT_TRUE(control->SetSink(&sink));
        lose(way_of(i));
        sink.wait_for(1);
        qorStringArray out;
        expect_lost(control->GetCodes(out), "GetCodes");
        expect_lost(control->EnableCode("loss", true), "EnableCode");
        expect_lost(control->SetSink(&sink), "SetSink");
        mend();
        // A new login makes a new connection. It has no sink yet, so its loss is not reported.
        if (i % 4 == 0) {
            EXPECT_TRUE(control->Login("ada", "secret")) << last_error();
            EXPECT_TRUE(control->DisableAll()) << last_error();
            lose(way_of(i));
            mend();
        }
        control.Empty();
        told += sink.count();
    }
    EXPECT_EQ(told, rounds);
    std::cout << "connections lost: " << rounds << ", told: " << told << '\n';
}

// The request fails because of the loss, and the loss is reported as well.
TEST_F(loss, is_told_once_during_a_request_of_another_thread) {
    int told = 0, during = 0;
    for (int i = 0; i < rounds; ++i) {
        control_pointer control = log_in();
        counting_sink sink;
        ASSERT_TRUE(control->SetSink(&sink));
        std::atomic<int> answers = 0;
        std::thread asker([&] {
            qorStringArray out;
            while (control->GetCodes(out))
                ++answers;
            EXPECT_EQ(error_number(), qorError_debug_connection_lost) << last_error();
        });
        while (answers < 2)
            std::this_thread::yield();
        lose(way_of(i));
        asker.join();
        sink.wait_for(1);
        ++during;
        control.Empty();
        told += sink.count();
        mend();
    }
    EXPECT_EQ(told, rounds);
    std::cout << "connections lost during a request: " << during << ", told: " << told << '\n';
}

// The loss of a connection without a sink is not reported, not even to a sink of an earlier connection.
TEST_F(loss, before_a_login_is_not_told) {
    counting_sink sink;
    int again = 0;
    for (int i = 0; i < rounds; ++i) {
        control_pointer control = log_in();
        ASSERT_TRUE(control->SetSink(&sink));
        ASSERT_TRUE(control->Connect("127.0.0.1", proxy.port())) << last_error();
        EXPECT_FALSE(control->SetSink(&sink));
        EXPECT_EQ(error_number(), qorError_debug_not_logged_in);
        lose(way_of(i));
        mend();
        // The login succeeds all the same: the user is not at fault, and would only type the same again.
        again += control->Login("ada", "secret");
        // The new connection is not lost yet.
        EXPECT_TRUE(control->DisableAll()) << last_error();
    }
    EXPECT_EQ(again, rounds);
    EXPECT_EQ(sink.count(), 0);
    std::cout << "connections lost before the login: " << rounds << ", logged in all the same: " << again
              << ", told: " << sink.count() << '\n';
}

// A refusal is delayed, so the login is sure to wait.
TEST_F(loss, while_a_login_waits) {
    const int logins = load(3, 100);
    int lost = 0, refused = 0;
    proxy.set({});
    control_pointer first = connect_through_proxy();
    EXPECT_FALSE(first->Login("ada", "guess"));
    const std::size_t all_that_is_said = proxy.passed(false);
    first.Empty();
    for (int i = 0; i < logins; ++i) {
        proxy.set({});
        control_pointer control = connect_through_proxy();
        std::thread asker([&] {
            EXPECT_FALSE(control->Login("ada", "guess"));
            lost += error_number() == qorError_debug_connection_lost;
            refused += error_number() == qorError_credentials_refused; // if this thread had to wait, too
        });
        while (proxy.passed(false) < all_that_is_said)
            std::this_thread::yield();
        lose(way_of(i));
        asker.join();
        qorStringArray out;
        EXPECT_FALSE(control->GetCodes(out));
        EXPECT_EQ(error_number(), qorError_debug_not_logged_in);
        mend();
        // A new listener, because one listener would eventually delay the wrong logins of one address.
        listener.Empty();
        mend();
        EXPECT_TRUE(control->Login("ada", "secret")) << last_error();
    }
    EXPECT_EQ(lost + refused, logins);
    EXPECT_GT(lost, 0);
    std::cout << "logins that waited when the connection was lost: " << logins << ", ended by it: " << lost << '\n';
}

TEST_F(loss, an_end_of_ones_own_is_not_told) {
    counting_sink sink;
    for (int i = 0; i < rounds; ++i) {
        control_pointer control = log_in();
        ASSERT_TRUE(control->SetSink(&sink));
        if (i % 3 == 0) {
            EXPECT_TRUE(control->Connect("127.0.0.1", proxy.port())) << last_error();
        } else if (i % 3 == 1) {
            // A removed sink is not notified of anything.
            EXPECT_TRUE(control->SetSink(nullptr));
            lose(way_of(i / 3));
            mend();
        }
    }
    listener.Empty();
    EXPECT_EQ(sink.count(), 0);
    std::cout << "connections ended by the console: " << rounds << ", told: " << sink.count() << '\n';
}

// Both at the same time: the loss is reported once or not at all, and never after the end has returned; the sink is
// gone then.
TEST_F(loss, beside_an_end_of_ones_own) {
    int told = 0;
    for (int i = 0; i < rounds; ++i) {
        control_pointer control = log_in();
        auto sink = std::make_unique<counting_sink>();
        ASSERT_TRUE(control->SetSink(sink.get()));
        std::thread loser([&] { lose(way_of(i)); });
        if (i / 3 % 4 != 0) // roughly the time that a loss takes to arrive
            std::this_thread::sleep_for(std::chrono::microseconds(i % 7 * 30));
        switch (i / 12 % 3) {
        case 0:
            control.Empty();
            break;
        case 1:
            EXPECT_TRUE(control->SetSink(nullptr));
            break;
        default:
            (void)control->Connect("127.0.0.1", proxy.port());
        }
        EXPECT_LE(sink->count(), 1);
        told += sink->count();
        sink.reset();
        loser.join();
        control.Empty();
        mend();
    }
    std::cout << "connections lost beside an end: " << rounds << ", told before it: " << told << '\n';
}

// No lock is held: the sink may release the control, and so end the thread that calls it.
TEST_F(loss, a_sink_may_release_the_control) {
    int told = 0;
    for (int i = 0; i < rounds; ++i) {
        control_pointer control = log_in();
        counting_sink sink;
        sink.act = [&control] { control.Empty(); };
        ASSERT_TRUE(control->SetSink(&sink));
        lose(way_of(i));
        sink.wait_for(1);
        EXPECT_TRUE(control.IsEmpty());
        told += sink.count();
        mend();
    }
    std::cout << "controls released by their sinks: " << told << '\n';
}

// The sink may also use the control while an operation of another thread meets the same loss: it connects anew and sets
// itself again.
TEST_F(loss, a_sink_may_use_the_control) {
    int told = 0;
    for (int i = 0; i < rounds; ++i) {
        control_pointer control = log_in();
        counting_sink sink;
        std::atomic<bool> again = false, mended = false;
        sink.act = [&] {
            qorStringArray out;
            if (again) {
                expect_lost(control->DisableAll(), "DisableAll");
                return;
            }
            again = true;
            expect_lost(control->GetCodes(out), "GetCodes");
            expect_lost(control->SetSink(&sink), "SetSink");
            EXPECT_TRUE(control->SetSink(nullptr));
            while (!mended)
                std::this_thread::yield();
            EXPECT_TRUE(control->Connect("127.0.0.1", proxy.port())) << last_error();
            EXPECT_TRUE(control->Login("ada", "secret")) << last_error();
            EXPECT_TRUE(control->SetSink(&sink)) << last_error();
        };
        ASSERT_TRUE(control->SetSink(&sink));
        std::atomic<bool> done = false;
        std::thread asker([&] {
            qorStringArray out;
            while (!done)
                (void)control->GetCodes(out);
        });
        lose(way_of(i));
        mend();
        mended = true;
        sink.wait_for(1);
        done = true;
        asker.join();
        EXPECT_TRUE(control->DisableAll()) << last_error();
        lose(way_of(i / 3));
        sink.wait_for(2);
        control.Empty();
        told += sink.count();
        mend();
    }
    EXPECT_EQ(told, 2 * rounds);
    std::cout << "connections lost, the sink connecting anew: " << 2 * rounds << ", told: " << told << '\n';
}

} // namespace
