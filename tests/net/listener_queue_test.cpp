// Listeners that hand their connections over by a queue. No test depends on how fast anything is.
#include "net/listener_test_support.h"
#include "net/peer_test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace {

using qor::test::alive;
using qor::test::local;
using qor::test::peer;

// A queue that a test runs by hand.
class queue final : public qor::object<IQORIPConnectionQueue> {
public:
    queue() : object("queue", "IQORIPConnectionQueue") {}

    void Post(IQORIPConnectionEvent* event) noexcept override {
        event->AddRef();
        const std::lock_guard hold(m_lock);
        m_events.emplace_back().AttachNew(event);
    }

    zetSmartPointer<IQORIPConnectionEvent> take() {
        for (;; qorSleep(1)) {
            const std::lock_guard hold(m_lock);
            if (m_events.empty())
                continue;
            zetSmartPointer<IQORIPConnectionEvent> first = std::move(m_events.front());
            m_events.pop_front();
            return first;
        }
    }

private:
    std::mutex m_lock;
    std::deque<zetSmartPointer<IQORIPConnectionEvent>> m_events;
};

zetSmartPointer<queue> new_queue() {
    zetSmartPointer<queue> made;
    made.AttachNew(QOR_NEW queue);
    return made;
}

TEST(listener_queue, calls_on_the_thread_that_runs_the_event) {
    const auto own = new_queue();
    std::thread::id caller;
    int calls = 0;
    qorIPPortListener listener;
    ASSERT_TRUE(listener.Begin(
        local,
        [&](IQORIPConnection& connection) {
            caller = std::this_thread::get_id();
            ++calls;
            EXPECT_TRUE(connection.Write("hello"));
        },
        *own));
    peer other(listener.Port());
    const auto event = own->take();
    EXPECT_EQ(calls, 0);
    event->Run();
    event->Run();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(caller, std::this_thread::get_id());
    EXPECT_EQ(other.receive(100), "hello"); // up to the end: nobody has kept the connection
}

TEST(listener_queue, a_dropped_event_closes_its_connection) {
    const auto own = new_queue();
    qorIPPortListener listener;
    ASSERT_TRUE(listener.Begin(
        local, [](IQORIPConnection&) { ADD_FAILURE(); }, *own));
    peer other(listener.Port());
    auto event = own->take();
    EXPECT_EQ(listener.Counts().open, 1u);
    event.Empty();
    EXPECT_TRUE(other.is_ended());
    EXPECT_EQ(listener.Counts().open, 0u);
}

TEST(listener_queue, the_events_of_a_closed_listener_do_nothing) {
    const auto own = new_queue();
    std::atomic<int> targets{0};
    qorIPPortListener listener;
    ASSERT_TRUE(listener.Begin(
        local, [self = alive(targets)](IQORIPConnection&) { ADD_FAILURE(); }, *own));
    peer other(listener.Port());
    const auto event = own->take();
    EXPECT_TRUE(listener.Close());
    EXPECT_EQ(targets, 0);
    event->Run();
    EXPECT_TRUE(other.is_ended());
}

TEST(listener_queue, a_slow_one_is_bounded_by_the_limits) {
    const auto own = new_queue();
    qorIPPortOptions options = local;
    options.connections = 4;
    qorIPPortListener listener;
    ASSERT_TRUE(listener.Begin(
        options, [](IQORIPConnection&) {}, *own));
    std::vector<peer> peers;
    for (int i = 0; i < 20; ++i)
        peers.emplace_back(listener.Port());
    while (listener.Counts().beyond_limit < 16)
        qorSleep(1);
    EXPECT_EQ(listener.Counts().open, 4u);
}

// Runs its events where they are posted.
class direct final : public qor::object<IQORIPConnectionQueue> {
public:
    direct() : object("direct", "IQORIPConnectionQueue") {}
    void Post(IQORIPConnectionEvent* event) noexcept override { event->Run(); }
};

TEST(listener_queue, may_run_and_close_where_it_posts) {
    zetSmartPointer<direct> own;
    own.AttachNew(QOR_NEW direct);
    std::atomic<int> targets{0};
    qorIPPortListener listener;
    ASSERT_TRUE(listener.Begin(
        local, [&, self = alive(targets)](IQORIPConnection&) { EXPECT_TRUE(listener.Close()); }, *own));
    EXPECT_TRUE(peer(listener.Port()).is_connected());
    while (targets != 0)
        qorSleep(1);
    EXPECT_FALSE(listener.IsListening());
}

TEST(listener_queue, two_targets_that_close_at_once_do_not_wait_for_each_other) {
    const auto own = new_queue();
    std::atomic<int> inside{0};
    std::atomic<int> closed{0};
    zetSmartPointer<IQORIPPortListener> listener;
    class target final : public qor::object<IQORIPConnectionTarget> {
    public:
        target(std::atomic<int>& in, std::atomic<int>& out, zetSmartPointer<IQORIPPortListener>& of)
            : object("target", "IQORIPConnectionTarget"), m_inside(in), m_closed(out), m_listener(of) {}
        void ConnectionAccepted(IQORIPConnection*) noexcept override {
            ++m_inside;
            while (m_inside < 2)
                qorSleep(1);
            m_closed += qorCloseListener(*m_listener);
        }

    private:
        std::atomic<int>& m_inside;
        std::atomic<int>& m_closed;
        zetSmartPointer<IQORIPPortListener>& m_listener;
    };
    zetSmartPointer<target> made;
    made.AttachNew(QOR_NEW target(inside, closed, listener));
    ASSERT_TRUE(qorCreateIPPortListener(local, *made, *own, listener.Out()));
    peer first(listener->GetPort()), second(listener->GetPort());
    const auto one = own->take(), other = own->take();
    std::thread thread([&] { one->Run(); });
    other->Run();
    thread.join();
    EXPECT_EQ(closed, 1);
}

} // namespace
