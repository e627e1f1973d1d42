// Messages between processes, within one process: both sides are ours.
#include "qor/qor.h"
#include "support/last_error.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using qor::test::last_error;

namespace {

constexpr auto long_time = 120s; // only against hanging

// A name that nobody else has.
std::string new_name() {
    static std::atomic<unsigned> count{0};
    std::random_device random;
    return "test." + std::to_string(random()) + "." + std::to_string(++count);
}

uint32 last_number() {
    zetSmartPointer<IQORErrorMessage> error;
    qorGetLastError(error.Out());
    return error->GetErrorNumber();
}

// Notes what it is told.
class notes final : public qor::object<IQORIpcTarget> {
public:
    notes() : object("notes", "IQORIpcTarget") {}

    bool Accept(IQORIpcConnection* connection) noexcept override {
        const std::lock_guard hold(lock);
        ++accepted;
        changed.notify_all();
        return on_accept == nullptr || on_accept(*connection);
    }
    void Received(IQORIpcConnection* connection, const void* bytes, uint64 length) noexcept override {
        const std::string_view message(static_cast<const char*>(bytes), length);
        if (on_message != nullptr)
            on_message(*connection, message);
        const std::lock_guard hold(lock);
        messages.emplace_back(message);
        changed.notify_all();
    }
    void Ended(IQORIpcConnection* connection) noexcept override {
        if (on_end != nullptr)
            on_end(*connection);
        const std::lock_guard hold(lock);
        ends.push_back(connection->GetEnd());
        changed.notify_all();
    }

    template <class READY>
    bool wait(READY ready) {
        std::unique_lock hold(lock);
        return changed.wait_for(hold, long_time, ready);
    }
    bool wait_for_messages(std::size_t count) {
        return wait([&] { return messages.size() >= count; });
    }
    bool wait_for_ends(std::size_t count) {
        return wait([&] { return ends.size() >= count; });
    }

    std::function<bool(IQORIpcConnection&)> on_accept;
    std::function<void(IQORIpcConnection&, std::string_view)> on_message;
    std::function<void(IQORIpcConnection&)> on_end;

    std::mutex lock;
    std::condition_variable changed;
    unsigned accepted = 0;
    std::vector<std::string> messages;
    std::vector<qorIpcEnd> ends;
};

zetSmartPointer<notes> new_notes() {
    zetSmartPointer<notes> made;
    made.AttachNew(QOR_NEW notes);
    return made;
}

IQORIpcTarget* no_target() { return nullptr; }

// A server that sends every message back.
struct echo {
    explicit echo(const qorIpcOptions& options = {}) {
        const bool is_made = qorCreateIpcServer(
            name.c_str(), options,
            [](IQORIpcConnection& from, std::string_view message) { (void)from.TrySend(message); }, server.Out());
        EXPECT_TRUE(is_made) << last_error();
    }
    zetSmartPointer<IQORIpcConnection> connect(const qorIpcOptions& options = {}) const {
        zetSmartPointer<IQORIpcConnection> made;
        EXPECT_TRUE(qorCreateIpcConnection(name.c_str(), options, no_target(), made.Out())) << last_error();
        return made;
    }
    const std::string name = new_name();
    zetSmartPointer<IQORIpcServer> server;
};

std::string bytes_of(std::size_t length, unsigned seed) {
    std::string out;
    std::minstd_rand random(seed + 1);
    while (out.size() < length)
        out.push_back(static_cast<char>(random()));
    return out;
}

} // namespace

TEST(ipc, messages_of_every_length_come_back) {
    const echo there;
    const auto connection = there.connect();
    std::string back;
    for (const std::size_t length : {0, 1, 7, 8, 9, 63, 64, 4095, 4096, 65527, 65528, 65536, 262144, 262145, 1 << 20}) {
        const std::string sent = bytes_of(length, static_cast<unsigned>(length));
        ASSERT_TRUE(connection->Send(sent)) << last_error();
        ASSERT_TRUE(connection->Receive(back)) << last_error();
        ASSERT_EQ(back.size(), sent.size());
        ASSERT_TRUE(back == sent) << length;
    }
    EXPECT_TRUE(connection->Close(0)) << last_error();
    EXPECT_EQ(connection->GetEnd(), qorIpcEnd::closed_here);
}

TEST(ipc, both_sides_know_each_other) {
    const auto told = new_notes();
    qorIpcPeer seen;
    told->on_accept = [&](IQORIpcConnection& from) {
        from.GetPeer(seen);
        return true;
    };
    const std::string name = new_name();
    zetSmartPointer<IQORIpcServer> server;
    ASSERT_TRUE(qorCreateIpcServer(name.c_str(), {}, *told, server.Out())) << last_error();
    zetSmartPointer<IQORIpcConnection> connection;
    ASSERT_TRUE(qorCreateIpcConnection(name.c_str(), connection.Out())) << last_error();
    qorIpcPeer other;
    connection->GetPeer(other);
    EXPECT_TRUE(other.is_own_user);
    EXPECT_TRUE(seen.is_own_user);
    EXPECT_EQ(other.process, seen.process); // both are this one
    EXPECT_EQ(other.user, seen.user);
    EXPECT_GT(other.user.Length(), 0u);
    qorString address;
    server->GetAddress(address);
    zetSmartPointer<IQORIpcConnection> again;
    EXPECT_TRUE(qorCreateIpcConnection(address.Text(), again.Out())) << address.Text() << last_error();
    EXPECT_EQ(server->GetConnectionCount(), 2u);
}

TEST(ipc, all_that_was_sent_before_a_close_arrives) {
    const auto told = new_notes();
    const std::string name = new_name();
    zetSmartPointer<IQORIpcServer> server;
    ASSERT_TRUE(qorCreateIpcServer(name.c_str(), {}, *told, server.Out())) << last_error();
    for (unsigned round = 0; round < 20; ++round) {
        zetSmartPointer<IQORIpcConnection> connection;
        ASSERT_TRUE(qorCreateIpcConnection(name.c_str(), connection.Out())) << last_error();
        for (unsigned i = 0; i < 100; ++i)
            ASSERT_TRUE(connection->Send(bytes_of(i * 50, i))) << last_error();
        ASSERT_TRUE(connection->Close(0)) << last_error();
        const std::lock_guard hold(told->lock);
        ASSERT_EQ(told->messages.size(), 100u) << round; // no waiting: they are there when Close returns
        for (unsigned i = 0; i < 100; ++i)
            ASSERT_EQ(told->messages[i], bytes_of(i * 50, i));
        told->messages.clear();
    }
    ASSERT_TRUE(told->wait_for_ends(20));
    for (const qorIpcEnd each : told->ends)
        EXPECT_EQ(each, qorIpcEnd::closed);
}

TEST(ipc, a_server_that_closes_lets_its_messages_arrive) {
    const auto told = new_notes();
    told->on_accept = [](IQORIpcConnection& from) {
        for (unsigned i = 0; i < 50; ++i)
            EXPECT_TRUE(from.Send(std::to_string(i)));
        return true;
    };
    const std::string name = new_name();
    zetSmartPointer<IQORIpcServer> server;
    ASSERT_TRUE(qorCreateIpcServer(name.c_str(), {}, *told, server.Out())) << last_error();
    zetSmartPointer<IQORIpcConnection> connection;
    ASSERT_TRUE(qorCreateIpcConnection(name.c_str(), connection.Out())) << last_error();
    EXPECT_TRUE(server->Close(0)) << last_error();
    EXPECT_EQ(told->ends, std::vector{qorIpcEnd::closed_here});
    std::string message;
    for (unsigned i = 0; i < 50; ++i) {
        ASSERT_TRUE(connection->Receive(message)) << last_error();
        EXPECT_EQ(message, std::to_string(i));
    }
    EXPECT_FALSE(connection->Receive(message));
    EXPECT_EQ(last_number(), qorError_ipc_ended);
    EXPECT_EQ(connection->GetEnd(), qorIpcEnd::closed);
    EXPECT_FALSE(connection->Send("more"));
    EXPECT_EQ(last_number(), qorError_ipc_ended);
    EXPECT_FALSE(qorCreateIpcConnection(name.c_str(), connection.Out()));
    EXPECT_EQ(last_number(), qorError_ipc_no_server);
}

TEST(ipc, both_sides_may_close_at_once) {
    for (unsigned round = 0; round < 50; ++round) {
        const auto told = new_notes();
        std::mutex lock;
        zetSmartPointer<IQORIpcConnection> at_server;
        told->on_accept = [&](IQORIpcConnection& from) {
            from.AddRef();
            const std::lock_guard hold(lock);
            at_server.AttachNew(&from);
            return true;
        };
        const std::string name = new_name();
        zetSmartPointer<IQORIpcServer> server;
        ASSERT_TRUE(qorCreateIpcServer(name.c_str(), {}, *told, server.Out())) << last_error();
        zetSmartPointer<IQORIpcConnection> connection;
        ASSERT_TRUE(qorCreateIpcConnection(name.c_str(), connection.Out())) << last_error();
        bool is_in_order = false;
        std::thread other([&] {
            const std::lock_guard hold(lock);
            (void)at_server->Send("from the server");
            is_in_order = at_server->Close(0) || at_server->GetEnd() == qorIpcEnd::closed;
        });
        (void)connection->Send("from the other");
        EXPECT_TRUE(connection->Close(0) || connection->GetEnd() == qorIpcEnd::closed) << last_error();
        other.join();
        EXPECT_TRUE(is_in_order);
    }
}

TEST(ipc, a_receiver_that_does_not_read_stops_the_sender_only) {
    const echo there;
    const auto full = there.connect({.receive_queue = 1});
    const std::string piece = bytes_of(60'000, 1);
    // The echo keeps the answers as far as its queue goes, and drops the rest; nobody waits for it.
    const auto other = there.connect();
    std::string back;
    for (unsigned i = 0; i < 200; ++i) {
        ASSERT_TRUE(full->Send(piece)) << last_error();
        ASSERT_TRUE(other->Send("ping")) << last_error();
        ASSERT_TRUE(other->Receive(back)) << last_error();
    }
}

TEST(ipc, send_waits_and_tells_when_it_would) {
    const auto told = new_notes();
    qorGate go_on(false);
    told->on_message = [&](IQORIpcConnection&, std::string_view) { go_on.Wait(); };
    const std::string name = new_name();
    zetSmartPointer<IQORIpcServer> server;
    ASSERT_TRUE(qorCreateIpcServer(name.c_str(), {}, *told, server.Out())) << last_error();
    zetSmartPointer<IQORIpcConnection> connection;
    ASSERT_TRUE(qorCreateIpcConnection(name.c_str(), {.send_queue = 100'000}, no_target(), connection.Out()));
    const std::string piece = bytes_of(10'000, 1);
    unsigned sent = 0;
    while (connection->Send(piece, 100)) // longer than what is on its way takes to come to rest
        ASSERT_LT(++sent, 10'000u);
    EXPECT_EQ(last_number(), qorError_timed_out);
    EXPECT_FALSE(connection->TrySend(piece));
    EXPECT_EQ(last_number(), qorError_ipc_would_wait);
    EXPECT_GT(connection->GetUnsent(), 80'000u);
    EXPECT_LE(connection->GetUnsent(), 100'000u);
    std::thread waits([&] {
        EXPECT_TRUE(connection->Send("the last")) << last_error();
        EXPECT_TRUE(connection->Close(0)) << last_error();
    });
    go_on.Open();
    waits.join();
    ASSERT_EQ(told->messages.size(), sent + 1);
    EXPECT_EQ(told->messages.back(), "the last");
}

TEST(ipc, messages_that_are_too_long_are_refused_by_the_sender) {
    const echo there({.max_message = 1000});
    const auto connection = there.connect({.max_message = 999});
    EXPECT_FALSE(connection->Send(bytes_of(1001, 1)));
    EXPECT_EQ(last_number(), qorError_ipc_too_long);
    EXPECT_EQ(last_error(), "The message has 1001 bytes; the peer takes at most 1000.");
    // The echo of this one is too long for us.
    EXPECT_TRUE(connection->Send(bytes_of(1000, 1))) << last_error();
    std::string back;
    EXPECT_TRUE(connection->Send("short")) << last_error();
    EXPECT_TRUE(connection->Receive(back)) << last_error();
    EXPECT_EQ(back, "short");
}

TEST(ipc, an_address_is_one_servers) {
    const echo there;
    const auto told = new_notes();
    zetSmartPointer<IQORIpcServer> second;
    EXPECT_FALSE(qorCreateIpcServer(there.name.c_str(), {}, *told, second.Out()));
    EXPECT_EQ(last_number(), qorError_ipc_address_taken);
    EXPECT_TRUE(there.server->Close(0)) << last_error();
    EXPECT_TRUE(qorCreateIpcServer(there.name.c_str(), {}, *told, second.Out())) << last_error();
}

TEST(ipc, addresses_that_are_none) {
    const auto told = new_notes();
    zetSmartPointer<IQORIpcServer> server;
    for (const char* const each :
         {"", "a/b", ".hidden", "tcp:host", "http://x", "with space", "\xc3\xa9", "unix:", "pipe:"}) {
        EXPECT_FALSE(qorCreateIpcServer(each, {}, *told, server.Out())) << each;
        EXPECT_EQ(last_number(), qorError_ipc_address) << each;
        zetSmartPointer<IQORIpcConnection> connection;
        EXPECT_FALSE(qorCreateIpcConnection(each, connection.Out())) << each;
        EXPECT_EQ(last_number(), qorError_ipc_address) << each;
    }
    EXPECT_FALSE(qorCreateIpcServer(nullptr, {}, *told, server.Out()));
    EXPECT_EQ(last_number(), qorError_invalid_argument);
    EXPECT_FALSE(qorCreateIpcServer("x", {.silence = 99}, *told, server.Out()));
    EXPECT_EQ(last_number(), qorError_invalid_argument);
    EXPECT_FALSE(qorCreateIpcServer("x", {.max_message = 0}, *told, server.Out()));
    EXPECT_FALSE(qorCreateIpcServer("x", {}, no_target(), server.Out()));
    EXPECT_EQ(last_error(), "qorCreateIpcServer was called with an invalid argument: target.");
}

TEST(ipc, the_program_may_refuse) {
    const auto told = new_notes();
    told->on_accept = [](IQORIpcConnection& from) {
        EXPECT_TRUE(from.Send("never seen"));
        return false;
    };
    const std::string name = new_name();
    zetSmartPointer<IQORIpcServer> server;
    ASSERT_TRUE(qorCreateIpcServer(name.c_str(), {}, *told, server.Out())) << last_error();
    zetSmartPointer<IQORIpcConnection> connection;
    EXPECT_FALSE(qorCreateIpcConnection(name.c_str(), connection.Out()));
    EXPECT_EQ(last_number(), qorError_ipc_refused);
    EXPECT_NE(last_error().find("the program there does not want it"), std::string::npos) << last_error();
    EXPECT_TRUE(server->Close(0));
    EXPECT_TRUE(told->ends.empty());
}

TEST(ipc, connections_have_a_limit) {
    const echo there({.max_connections = 3});
    std::vector<zetSmartPointer<IQORIpcConnection>> all;
    for (int i = 0; i < 3; ++i)
        all.push_back(there.connect());
    zetSmartPointer<IQORIpcConnection> more;
    EXPECT_FALSE(qorCreateIpcConnection(there.name.c_str(), more.Out()));
    EXPECT_NE(last_error().find("as many connections as it may have"), std::string::npos) << last_error();
    EXPECT_TRUE(all.back()->Close(0)) << last_error();
    const auto end = std::chrono::steady_clock::now() + long_time;
    while (there.server->GetConnectionCount() == 3 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(qorCreateIpcConnection(there.name.c_str(), more.Out())) << last_error();
}

TEST(ipc, a_close_ends_the_calls) {
    const auto told = new_notes();
    std::atomic<bool> is_closed{false};
    std::atomic<unsigned> late{0};
    told->on_message = [&](IQORIpcConnection& from, std::string_view) {
        late += is_closed;
        (void)from.TrySend("x");
    };
    const echo there;
    for (int i = 0; i < 30; ++i) {
        is_closed = false;
        zetSmartPointer<IQORIpcConnection> connection;
        ASSERT_TRUE(qorCreateIpcConnection(there.name.c_str(), {}, *told, connection.Out())) << last_error();
        for (int j = 0; j < 10; ++j)
            (void)connection->Send("x");
        if (i % 2 != 0) {
            connection.Empty();
        } else {
            EXPECT_TRUE(connection->Close(0)) << last_error();
        }
        is_closed = true;
    }
    EXPECT_EQ(late, 0u);
    EXPECT_EQ(told->ends, std::vector(30, qorIpcEnd::closed_here));
}

TEST(ipc, a_target_may_close_and_release_from_inside) {
    for (int how = 0; how < 3; ++how) {
        const auto told = new_notes();
        zetSmartPointer<IQORIpcServer> server;
        told->on_message = [&](IQORIpcConnection& from, std::string_view) {
            if (how == 2)
                return server.Empty();
            EXPECT_TRUE(how == 0 ? from.Close(0) : server->Close(0));
        };
        const std::string name = new_name();
        ASSERT_TRUE(qorCreateIpcServer(name.c_str(), {}, *told, server.Out())) << last_error();
        zetSmartPointer<IQORIpcConnection> connection;
        ASSERT_TRUE(qorCreateIpcConnection(name.c_str(), connection.Out())) << last_error();
        ASSERT_TRUE(connection->Send("x"));
        std::string message;
        EXPECT_FALSE(connection->Receive(message));
        EXPECT_EQ(connection->GetEnd(), how == 2 ? qorIpcEnd::lost : qorIpcEnd::closed);
        EXPECT_TRUE(told->wait_for_ends(1));
        if (how == 0) {
            EXPECT_TRUE(server->Close(0));
        }
    }
}

TEST(ipc, in_a_call_nothing_waits_for_its_own_thread) {
    const echo there;
    const auto told = new_notes();
    uint32 connecting = 0;
    uint32 receiving = 0;
    const auto queued = there.connect();
    told->on_message = [&](IQORIpcConnection&, std::string_view) {
        zetSmartPointer<IQORIpcConnection> other;
        if (!qorCreateIpcConnection(there.name.c_str(), other.Out()))
            connecting = last_number();
        std::string message;
        if (!queued->Receive(message))
            receiving = last_number();
    };
    zetSmartPointer<IQORIpcConnection> connection;
    ASSERT_TRUE(qorCreateIpcConnection(there.name.c_str(), {}, *told, connection.Out())) << last_error();
    ASSERT_TRUE(connection->Send("x"));
    ASSERT_TRUE(told->wait_for_messages(1));
    EXPECT_EQ(connecting, qorError_ipc_own_thread);
    EXPECT_EQ(receiving, qorError_ipc_nothing_there);
    std::string message;
    EXPECT_FALSE(connection->Receive(message));
    EXPECT_EQ(last_number(), qorError_ipc_has_target);
}

TEST(ipc, senders_on_many_threads_are_not_mixed) {
    const auto told = new_notes();
    const std::string name = new_name();
    zetSmartPointer<IQORIpcServer> server;
    ASSERT_TRUE(qorCreateIpcServer(name.c_str(), {}, *told, server.Out())) << last_error();
    zetSmartPointer<IQORIpcConnection> connection;
    ASSERT_TRUE(qorCreateIpcConnection(name.c_str(), {.send_queue = 50'000}, no_target(), connection.Out()));
    constexpr unsigned threads = 4;
    constexpr unsigned each = 200;
    std::vector<std::thread> all;
    for (unsigned t = 0; t < threads; ++t)
        all.emplace_back([&, t] {
            for (unsigned i = 0; i < each; ++i) {
                const std::string message = std::to_string(t) + ":" + std::to_string(i) + ":" + bytes_of(i * 31, i);
                ASSERT_TRUE(connection->Send(message)) << last_error();
            }
        });
    for (std::thread& one : all)
        one.join();
    EXPECT_TRUE(connection->Close(0)) << last_error();
    ASSERT_EQ(told->messages.size(), threads * each);
    unsigned next[threads] = {};
    for (const std::string& message : told->messages) {
        const unsigned t = static_cast<unsigned>(message[0] - '0');
        const unsigned i = next[t]++;
        ASSERT_EQ(message, std::to_string(t) + ":" + std::to_string(i) + ":" + bytes_of(i * 31, i));
    }
}

TEST(ipc, a_thousand_connections_at_once) {
    const echo there({.max_connections = 1000});
    std::vector<zetSmartPointer<IQORIpcConnection>> all;
    for (unsigned i = 0; i < 1000; ++i)
        all.push_back(there.connect());
    EXPECT_EQ(there.server->GetConnectionCount(), 1000u);
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (unsigned i = t; i < 1000; i += 4)
                ASSERT_TRUE(all[i]->Send(std::to_string(i))) << last_error();
            std::string back;
            for (unsigned i = t; i < 1000; i += 4) {
                ASSERT_TRUE(all[i]->Receive(back)) << last_error();
                ASSERT_EQ(back, std::to_string(i));
            }
        });
    for (std::thread& one : threads)
        one.join();
    EXPECT_TRUE(there.server->Close(0)) << last_error();
}

TEST(ipc, memory_is_shared_and_large_messages_still_arrive) {
    const auto told = new_notes();
    const std::string name = new_name();
    zetSmartPointer<IQORIpcServer> server;
    ASSERT_TRUE(qorCreateIpcServer(name.c_str(), {.memory = 100'000}, *told, server.Out())) << last_error();
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 5; ++t)
        threads.emplace_back([&, t] {
            zetSmartPointer<IQORIpcConnection> connection;
            ASSERT_TRUE(qorCreateIpcConnection(name.c_str(), connection.Out())) << last_error();
            for (unsigned i = 0; i < 3; ++i)
                ASSERT_TRUE(connection->Send(bytes_of(1'500'000, t))) << last_error();
            ASSERT_TRUE(connection->Close(0)) << last_error();
        });
    for (std::thread& one : threads)
        one.join();
    ASSERT_EQ(told->messages.size(), 15u);
    std::map<std::string, unsigned> counts;
    for (const std::string& each : told->messages)
        ++counts[each];
    for (unsigned t = 0; t < 5; ++t)
        EXPECT_EQ(counts[bytes_of(1'500'000, t)], 3u);
}

TEST(ipc, what_a_queue_holds_is_there_after_the_end) {
    const auto told = new_notes();
    told->on_accept = [](IQORIpcConnection& from) {
        for (unsigned i = 0; i < 300; ++i)
            EXPECT_TRUE(from.Send(bytes_of(1000, i)));
        return true;
    };
    const std::string name = new_name();
    zetSmartPointer<IQORIpcServer> server;
    ASSERT_TRUE(qorCreateIpcServer(name.c_str(), {}, *told, server.Out())) << last_error();
    zetSmartPointer<IQORIpcConnection> connection;
    ASSERT_TRUE(qorCreateIpcConnection(name.c_str(), {.receive_queue = 2000}, no_target(), connection.Out()));
    std::thread closes([&] { EXPECT_TRUE(server->Close(0)) << last_error(); });
    std::string message;
    for (unsigned i = 0; i < 300; ++i) {
        ASSERT_TRUE(connection->Receive(message)) << last_error();
        ASSERT_EQ(message, bytes_of(1000, i));
    }
    EXPECT_FALSE(connection->Receive(message));
    closes.join();
}

TEST(ipc, a_wait_for_a_message_has_a_limit) {
    const echo there;
    const auto connection = there.connect();
    std::string message;
    EXPECT_FALSE(connection->Receive(message, 10));
    EXPECT_EQ(last_number(), qorError_timed_out);
    std::thread closes([&] { EXPECT_TRUE(connection->Close(0)); });
    EXPECT_FALSE(connection->Receive(message));
    EXPECT_EQ(last_error(), "The connection has ended: it was closed here.");
    closes.join();
}
