// Listeners and their connections. No test depends on how fast anything is.
#include "net/listener_test_support.h"
#include "net/peer_test_support.h"
#include "support/last_error.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using qor::test::alive;
using qor::test::last_error;
using qor::test::local;
using qor::test::peer;

qorHostAddress address_of(const char* text) {
    qorHostAddress address;
    EXPECT_TRUE(qorStringToAddress(text, address));
    return address;
}

zetSmartPointer<IQORIPConnection> keep(IQORIPConnection& connection) {
    zetSmartPointer<IQORIPConnection> kept;
    connection.AddRef();
    kept.AttachNew(&connection);
    return kept;
}

// A listener that hands over one connection after the other.
class desk {
public:
    explicit desk(const qorIPPortOptions& options = local) {
        EXPECT_TRUE(listener.Begin(options, [this](IQORIPConnection& connection) {
            const std::lock_guard hold(m_lock);
            m_waiting.push_back(keep(connection));
        })) << last_error();
    }

    zetSmartPointer<IQORIPConnection> take() {
        for (;; qorSleep(1)) {
            const std::lock_guard hold(m_lock);
            if (m_waiting.empty())
                continue;
            zetSmartPointer<IQORIPConnection> first = std::move(m_waiting.front());
            m_waiting.pop_front();
            return first;
        }
    }
    uint16 port() const { return listener.Port(); }

private:
    std::mutex m_lock;
    std::deque<zetSmartPointer<IQORIPConnection>> m_waiting;

public:
    qorIPPortListener listener;
};

std::string read_all(IQORIPConnection& from) {
    std::string text;
    char bytes[100];
    for (uint64 count = 1; count != 0;) {
        EXPECT_TRUE(from.Read(bytes, sizeof bytes, 60'000, count)) << last_error();
        text.append(bytes, static_cast<std::size_t>(count));
    }
    return text;
}

TEST(listener, echoes_in_both_families) {
    qorIPPortListener listener;
    ASSERT_TRUE(listener.Begin({}, [](IQORIPConnection& connection) {
        char bytes[100];
        uint64 count = 0;
        while (connection.Read(bytes, sizeof bytes, 60'000, count) && count != 0)
            EXPECT_TRUE(connection.Write(std::string_view(bytes, static_cast<std::size_t>(count)), 60'000));
    })) << last_error();
    ASSERT_NE(listener.Port(), 0);
    EXPECT_TRUE(listener.IsListening());
    int served = 0;
    for (const qorAddressFamily family : {qorAddressFamily::ipv4, qorAddressFamily::ipv6}) {
        peer other(listener.Port(), family);
        if (!other.is_connected())
            continue; // this host lacks the family
        ++served;
        EXPECT_TRUE(other.send("a word"));
        EXPECT_EQ(other.receive(6), "a word");
        other.end_writing();
        EXPECT_TRUE(other.is_ended());
    }
    EXPECT_GE(served, 1);
    EXPECT_EQ(listener.Counts().accepted, static_cast<uint64>(served));
    EXPECT_TRUE(listener.Close());
    EXPECT_FALSE(listener.Close());
}

TEST(listener, has_a_socket_for_each_family_at_the_same_port) {
    class target final : public qor::object<IQORIPConnectionTarget> {
    public:
        target() : object("target", "IQORIPConnectionTarget") {}
        void ConnectionAccepted(IQORIPConnection*) noexcept override {}
    };
    zetSmartPointer<target> made;
    made.AttachNew(QOR_NEW target);
    zetSmartPointer<IQORIPPortListener> listener;
    ASSERT_TRUE(qorCreateIPPortListener({}, *made, nullptr, listener.Out())) << last_error();
    std::vector<qorAddressFamily> families;
    qorIPEndpoint at;
    for (uint32 i = 0; i < listener->GetAddressCount(); ++i) {
        ASSERT_TRUE(listener->GetAddress(i, at));
        EXPECT_EQ(at.port, listener->GetPort());
        families.push_back(at.address.family);
    }
    EXPECT_FALSE(listener->GetAddress(listener->GetAddressCount(), at));
    EXPECT_EQ(families.front(), qorAddressFamily::ipv4);
    EXPECT_LE(families.size(), 2u);
    if (families.size() == 2) {
        EXPECT_EQ(families.back(), qorAddressFamily::ipv6);
        EXPECT_TRUE(peer(listener->GetPort(), qorAddressFamily::ipv6).is_connected());
    }
    EXPECT_TRUE(peer(listener->GetPort()).is_connected());
    EXPECT_TRUE(qorCloseListener(*listener));
    EXPECT_FALSE(listener->IsListening());
    EXPECT_FALSE(peer(listener->GetPort()).is_connected());
}

TEST(listener, knows_both_ends) {
    desk own;
    peer other(own.port());
    const auto connection = own.take();
    qorIPEndpoint end;
    connection->GetPeer(end);
    EXPECT_EQ(end, (qorIPEndpoint{address_of("127.0.0.1"), other.port()}));
    connection->Close();
    connection->GetLocal(end);
    EXPECT_EQ(end, (qorIPEndpoint{address_of("127.0.0.1"), own.port()}));
}

TEST(listener, reads_what_there_is_up_to_the_end) {
    desk own;
    peer other(own.port());
    const auto connection = own.take();
    char bytes[8];
    uint64 count = 7;
    EXPECT_FALSE(connection->Read(bytes, sizeof bytes, 1, count));
    EXPECT_EQ(last_error(), "The operation timed out.");
    EXPECT_EQ(count, 0u);
    EXPECT_FALSE(connection->Read(bytes, 0, 1, count));
    EXPECT_EQ(last_error(), "IQORIPConnection::Read was called with an invalid argument: length.");
    EXPECT_TRUE(other.send("a longer text"));
    other.end_writing();
    EXPECT_EQ(read_all(**connection), "a longer text");
    EXPECT_TRUE(connection->Read(bytes, sizeof bytes, 1, count)); // the end stays
    EXPECT_EQ(count, 0u);
    EXPECT_TRUE(connection->Write("an answer"));
    EXPECT_TRUE(connection->EndWriting());
    EXPECT_EQ(other.receive(100), "an answer");
}

TEST(listener, a_peer_that_reads_nothing_costs_only_the_time_that_it_is_given) {
    desk own;
    peer other(own.port());
    const auto connection = own.take();
    const std::string much(64 << 20, 'x');
    uint64 written = 0;
    EXPECT_FALSE(connection->Write(much.data(), much.size(), 50, &written));
    EXPECT_EQ(last_error(), "The operation timed out.");
    EXPECT_LT(written, much.size());
    connection->Close();
    EXPECT_LE(other.receive(static_cast<std::size_t>(written)).size(), written);
}

TEST(listener, a_megabyte_goes_both_ways_at_once) {
    desk own;
    peer other(own.port());
    const auto connection = own.take();
    std::string sent;
    for (uint32 i = 0; sent.size() < 1 << 20; ++i)
        sent.append(std::to_string(i));
    std::string received;
    std::thread writer([&] {
        EXPECT_TRUE(connection->Write(sent, 60'000)) << last_error();
        EXPECT_TRUE(connection->EndWriting());
    });
    std::thread reader([&] { received = read_all(**connection); });
    std::string back;
    std::thread far_reader([&] { back = other.receive(sent.size() + 1); });
    EXPECT_TRUE(other.send(sent));
    other.end_writing();
    for (std::thread* each : {&writer, &reader, &far_reader})
        each->join();
    EXPECT_EQ(received, sent);
    EXPECT_EQ(back, sent);
}

TEST(listener, a_reset_by_the_peer_ends_the_connection) {
    desk own;
    peer other(own.port());
    const auto connection = own.take();
    other.reset();
    char byte;
    uint64 count = 0;
    if (connection->Read(&byte, 1, 60'000, count)) // Wine may take a reset for the end of the stream
        EXPECT_EQ(count, 0u);
    else
        EXPECT_EQ(last_error().rfind("The connection with 127.0.0.1 port ", 0), 0u) << last_error();
    while (connection->Write("x", 60'000))
        ;
    EXPECT_NE(last_error().find(" failed: "), std::string::npos) << last_error();
}

TEST(listener, peers_that_are_gone_before_they_are_accepted_disturb_nobody) {
    qorGate begin(false);
    std::atomic<int> calls{0};
    qorIPPortListener listener;
    ASSERT_TRUE(listener.Begin(local, [&](IQORIPConnection& connection) {
        begin.Wait();
        if (++calls % 2 == 0)
            (void)connection.Write("good evening", 60'000);
    }));
    for (int i = 0; i < 40; ++i) {
        peer other(listener.Port());
        if (i % 2 == 0)
            other.reset();
    }
    begin.Open();
    while (calls < 20) // some systems do not even tell of those that are gone
        qorSleep(1);
    const int before = calls;
    peer last(listener.Port());
    while (calls == before)
        qorSleep(1);
    EXPECT_TRUE(listener.IsListening());
}

TEST(listener, a_close_ends_reads_and_writes_on_other_threads) {
    desk own;
    peer first(own.port());
    const auto reading = own.take();
    peer second(own.port());
    const auto writing = own.take();
    const std::string much(64 << 20, 'x');
    std::thread reader([&] {
        char byte;
        uint64 count = 0;
        EXPECT_FALSE(reading->Read(&byte, 1, 0, count));
        EXPECT_EQ(last_error().rfind("Read is not possible: the connection with 127.0.0.1 port ", 0), 0u);
    });
    std::thread writer([&] {
        EXPECT_FALSE(writing->Write(much, 0));
        EXPECT_EQ(last_error().rfind("Write is not possible: the connection with 127.0.0.1 port ", 0), 0u);
    });
    qorSleep(20); // they wait by now, most likely
    reading->Close();
    writing->Close();
    reading->Close();
    reader.join();
    writer.join();
    EXPECT_TRUE(first.is_ended());
    EXPECT_EQ(reading->GetSocket(), -1);
    EXPECT_FALSE(reading->EndWriting());
}

TEST(listener, what_nobody_keeps_is_closed) {
    qorIPPortListener listener;
    ASSERT_TRUE(listener.Begin(local, [](IQORIPConnection&) {}));
    EXPECT_TRUE(peer(listener.Port()).is_ended());
    desk own;
    peer other(own.port());
    auto connection = own.take();
    EXPECT_EQ(own.listener.Counts().open, 1u);
    connection.Empty();
    EXPECT_TRUE(other.is_ended());
    EXPECT_EQ(own.listener.Counts().open, 0u);
}

TEST(listener, a_connection_outlives_its_listener) {
    desk own;
    peer other(own.port());
    const auto connection = own.take();
    EXPECT_TRUE(own.listener.Close());
    EXPECT_TRUE(other.send("still here"));
    other.end_writing();
    EXPECT_EQ(read_all(**connection), "still here");
    EXPECT_FALSE(own.listener.IsListening());
    EXPECT_EQ(own.port(), 0);
}

TEST(listener, limits_of_a_source_and_of_all) {
    for (const bool of_source : {false, true}) {
        qorIPPortOptions options = local;
        (of_source ? options.connections_of_source : options.connections) = 3;
        desk own(options);
        std::vector<peer> peers;
        std::vector<zetSmartPointer<IQORIPConnection>> kept;
        for (int i = 0; i < 3; ++i) {
            peers.emplace_back(own.port());
            kept.push_back(own.take());
        }
        for (int i = 0; i < 10; ++i)
            EXPECT_TRUE(peer(own.port()).is_ended());
        qorIPPortCounts counts = own.listener.Counts();
        EXPECT_EQ(counts.open, 3u);
        EXPECT_EQ(counts.accepted, 3u);
        EXPECT_EQ(of_source ? counts.beyond_source : counts.beyond_limit, 10u);
        EXPECT_EQ(of_source ? counts.beyond_limit : counts.beyond_source, 0u);
        kept[1]->Close();
        peers.emplace_back(own.port());
        kept.push_back(own.take());
        EXPECT_TRUE(peers.back().send("let in"));
        peers.back().end_writing();
        EXPECT_EQ(read_all(**kept.back()), "let in");
        kept.clear();
        EXPECT_EQ(own.listener.Counts().open, 0u);
    }
}

TEST(listener, a_flood_of_connections_leaves_nothing_behind) {
    qorIPPortOptions options = local;
    options.connections_of_source = 5;
    desk own(options);
    std::vector<std::thread> threads;
    std::atomic<int> ended{0};
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 50; ++round) {
                peer other(own.port());
                if (round % 3 == 0)
                    other.reset();
                ++ended;
            }
        });
    for (std::thread& each : threads)
        each.join();
    // Those that were accepted are closed, and then a new one gets in.
    for (qorIPPortCounts counts; counts = own.listener.Counts(), counts.open != 0;)
        own.take().Empty();
    peer last(own.port());
    while (own.listener.Counts().open == 0) {
        last = peer(own.port()); // it came while the last of the flood were still open
        qorSleep(1);
    }
    EXPECT_EQ(ended, 200);
}

TEST(listener, a_socket_that_was_taken_belongs_to_the_caller) {
    desk own;
    peer other(own.port());
    auto connection = own.take();
    const int64 seen = connection->GetSocket();
    EXPECT_NE(seen, -1);
    const int64 taken = connection->TakeSocket();
    EXPECT_EQ(taken, seen);
    EXPECT_EQ(connection->TakeSocket(), -1);
    EXPECT_EQ(last_error().rfind("TakeSocket is not possible: ", 0), 0u) << last_error();
    char byte;
    uint64 count = 0;
    EXPECT_FALSE(connection->Read(&byte, 1, 1, count));
    EXPECT_EQ(own.listener.Counts().open, 1u); // it still counts
    connection.Empty();
    EXPECT_EQ(own.listener.Counts().open, 0u);
    other.end_writing();
    qor::test::close_socket(taken); // it is still open
    EXPECT_TRUE(other.is_ended());
}

TEST(listener, a_socket_is_not_taken_while_somebody_reads) {
    desk own;
    for (bool was_busy = false; !was_busy;) { // unless the reader is too slow
        peer other(own.port());
        const auto connection = own.take();
        std::atomic<bool> begins{false};
        std::thread reader([&] {
            char byte;
            uint64 count = 0;
            begins = true;
            (void)connection->Read(&byte, 1, 0, count);
        });
        while (!begins)
            std::this_thread::yield();
        qorSleep(1);
        const int64 taken = connection->TakeSocket();
        was_busy = taken == -1;
        if (was_busy)
            EXPECT_NE(last_error().find("cannot be taken over while another thread reads or writes"), std::string::npos)
                << last_error();
        else
            qor::test::close_socket(taken);
        other.end_writing();
        reader.join();
    }
}

TEST(listener, the_port_is_free_when_it_is_closed) {
    uint16 port = 0;
    for (int i = 0; i < 20; ++i) {
        qorIPPortOptions options = local;
        options.port = port;
        desk own(options);
        port = own.port();
        EXPECT_TRUE(own.listener.IsListening());
        // A connection that this side ends first would keep the port without SO_REUSEADDR.
        peer other(port);
        own.take()->Close();
        EXPECT_TRUE(other.is_ended());
    }
}

// The thread that accepts learns late of a new listener, when a connection waits there already.
TEST(listener, a_new_one_is_served_on_a_busy_host) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> busy;
    for (int i = 0; i < 8; ++i)
        busy.emplace_back([&] {
            while (!stop)
                continue;
        });
    const desk another;
    for (int i = 0; i < 60; ++i) {
        desk own;
        peer other(own.port());
        own.take()->Close();
        EXPECT_TRUE(other.is_ended());
    }
    stop = true;
    for (std::thread& each : busy)
        each.join();
}

TEST(listener, a_port_that_is_taken_is_refused) {
    desk own;
    qorIPPortOptions options = local;
    options.port = own.port();
    qorIPPortListener second;
    EXPECT_FALSE(second.Begin(options, [](IQORIPConnection&) {}));
    EXPECT_EQ(last_error().rfind("Cannot listen at 127.0.0.1 port " + std::to_string(own.port()) + ": ", 0), 0u)
        << last_error();
    EXPECT_FALSE(second.IsListening());
    EXPECT_TRUE(own.listener.IsListening());
}

TEST(listener, what_is_no_address_of_this_host_is_refused) {
    qorIPPortListener listener;
    const auto ignore = [](IQORIPConnection&) {};
    for (const char* const text : {"localhost", "127.1", "[::1]", "::1%", "1.2.3.4:80"}) {
        EXPECT_FALSE(listener.Begin({.address = text}, ignore));
        EXPECT_EQ(last_error(),
                  std::string("qorCreateIPPortListener was called with an invalid argument: ") + text + ".");
    }
    EXPECT_FALSE(listener.Begin({.address = "192.0.2.1"}, ignore));
    EXPECT_EQ(last_error().rfind("Cannot listen at 192.0.2.1 port 0: ", 0), 0u) << last_error();
    zetSmartPointer<IQORIPPortListener> made;
    EXPECT_FALSE(qorCreateIPPortListener({}, nullptr, nullptr, made.Out()));
    EXPECT_EQ(last_error(), "qorCreateIPPortListener was called with an invalid argument: target.");
    EXPECT_FALSE(qorCloseListener(nullptr));
    EXPECT_EQ(last_error(), "qorCloseListener was called with an invalid argument: listener.");
}

TEST(listener, closed_it_calls_no_more_and_has_released_its_target) {
    for (int i = 0; i < 100; ++i) {
        std::atomic<int> targets{0};
        std::atomic<bool> is_over{false};
        std::atomic<int> late{0};
        qorIPPortListener listener;
        ASSERT_TRUE(listener.Begin(local, [&, self = alive(targets)](IQORIPConnection&) { late += is_over; }));
        std::thread caller([port = listener.Port()] {
            for (int each = 0; each < 5; ++each)
                peer(port).reset();
        });
        if (i % 2 == 0)
            std::this_thread::yield();
        EXPECT_TRUE(listener.Close());
        is_over = true;
        EXPECT_EQ(targets, 0);
        caller.join();
        EXPECT_EQ(late, 0);
    }
}

TEST(listener, a_close_waits_for_the_target) {
    qorGate begun(false), end(false);
    std::atomic<bool> has_returned{false};
    qorIPPortListener listener;
    ASSERT_TRUE(listener.Begin(local, [&](IQORIPConnection&) {
        begun.Open();
        end.Wait();
        has_returned = true;
    }));
    peer other(listener.Port());
    begun.Wait();
    std::thread opener([&] {
        qorSleep(20);
        end.Open();
    });
    EXPECT_TRUE(listener.Close());
    EXPECT_TRUE(has_returned);
    opener.join();
}

TEST(listener, closed_from_within_its_target_the_port_is_free_at_once) {
    std::atomic<int> targets{0};
    std::atomic<int> calls{0};
    qorGate done(false);
    qorIPPortListener listener;
    qorIPPortListener next;
    qorIPPortOptions options = local;
    ASSERT_TRUE(listener.Begin(local, [&, self = alive(targets)](IQORIPConnection&) {
        ++calls;
        EXPECT_TRUE(listener.Close());
        EXPECT_FALSE(listener.Close());
        EXPECT_TRUE(next.Begin(options, [](IQORIPConnection&) {})) << last_error();
        done.Open();
    }));
    options.port = listener.Port();
    std::vector<peer> peers;
    for (int i = 0; i < 3; ++i)
        peers.emplace_back(options.port);
    done.Wait();
    while (targets != 0)
        qorSleep(1);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(next.IsListening());
}

TEST(listener, closed_by_several_at_once_all_have_the_promise) {
    class target final : public qor::object<IQORIPConnectionTarget> {
    public:
        explicit target(std::atomic<int>& all) : object("target", "IQORIPConnectionTarget"), m_self(all) {}
        void ConnectionAccepted(IQORIPConnection*) noexcept override { std::this_thread::yield(); }

    private:
        alive m_self;
    };
    for (int i = 0; i < 100; ++i) {
        std::atomic<int> targets{0};
        zetSmartPointer<target> made;
        made.AttachNew(QOR_NEW target(targets));
        zetSmartPointer<IQORIPPortListener> listener;
        ASSERT_TRUE(qorCreateIPPortListener(local, *made, nullptr, listener.Out()));
        made.Empty();
        std::vector<peer> peers;
        for (int each = 0; each < 3; ++each)
            peers.emplace_back(listener->GetPort());
        std::atomic<int> first{0};
        std::vector<std::thread> threads;
        for (int each = 0; each < 3; ++each)
            threads.emplace_back([&] {
                first += qorCloseListener(*listener);
                EXPECT_EQ(targets, 0);
            });
        for (std::thread& each : threads)
            each.join();
        EXPECT_EQ(first, 1);
    }
}

} // namespace
