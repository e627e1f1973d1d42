// Messages between processes on Linux: peers that are hostile, silent, or slow.
#include "ipc/server_posix.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <malloc.h>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using qor::test::frame;
using qor::test::greet;
using qor::test::hello;
using qor::test::last_error;
using qor::test::number;
using qor::test::raw_peer;
using qor::test::server;
using qor::test::wait_until;

TEST(posix_ipc, the_form_of_the_bytes) {
    const server there({.max_message = 12345, .silence = 7777});
    raw_peer peer(there.path);
    std::string expected = "qmsg";
    expected.append(number(1)).append(number(12345)).append(number(7777));
    EXPECT_EQ(greet(peer), frame(4, expected));
    EXPECT_TRUE(peer.put(frame(0, "abc")));
    EXPECT_EQ(peer.next(), frame(0, "abc"));
    EXPECT_TRUE(peer.put(frame(0, "")));
    EXPECT_EQ(peer.next(), frame(0, ""));
    EXPECT_TRUE(peer.put(frame(1, "")));
    EXPECT_TRUE(peer.put(frame(2, "")));
    EXPECT_EQ(peer.next(), frame(3, ""));
    ASSERT_TRUE(there.told->wait([&] { return there.told->ends.size() == 1; }));
    EXPECT_EQ(there.told->ends.front(), qorIpcEnd::closed);
}

TEST(posix_ipc, bytes_may_come_one_by_one) {
    const server there;
    raw_peer peer(there.path);
    std::string all = hello();
    for (int i = 0; i < 20; ++i)
        all.append(frame(0, std::string(static_cast<std::size_t>(i), 'x')));
    for (const char& each : all)
        ASSERT_TRUE(peer.put({&each, 1}));
    (void)peer.next();
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(peer.next(), frame(0, std::string(static_cast<std::size_t>(i), 'x')));
}

TEST(posix_ipc, what_is_not_the_protocol_ends_the_connection) {
    const server there({.max_message = 1000});
    std::vector<std::string> wrong = {
        "GET / HTTP/1.1\r\n\r\n",
        frame(0, "no greeting"),
        frame(4, "qmsx" + number(1) + number(1) + number(0)),
        frame(4, "qmsg" + number(2) + number(1) + number(0)),
        frame(4, "qmsg" + number(1) + number(1) + number(99)),
        hello() + hello(),
        hello() + frame(0, std::string(1001, 'x')),
        hello() + number(0xffffffff) + number(0),
        hello() + number(0) + number(6),
        hello() + number(0) + number(256),
        hello() + frame(1, "x"),
        hello() + frame(3, ""),
        hello() + frame(5, number(1)),
    };
    for (const std::string& each : wrong) {
        raw_peer peer(there.path);
        (void)peer.put(each);
        EXPECT_TRUE(peer.is_closed_by_other());
    }
    EXPECT_TRUE(there.answers());
    wait_until([&] { return there.object->GetConnectionCount() == 0; });
}

TEST(posix_ipc, random_bytes_do_no_harm) {
    const server there({.max_message = 1000});
    std::minstd_rand random(1);
    for (int round = 0; round < 200; ++round) {
        raw_peer peer(there.path);
        std::string bytes = round % 2 != 0 ? hello() : std::string();
        for (int i = 0; i < 300; ++i) {
            // Mostly small numbers, which get farther.
            if (random() % 3 != 0)
                bytes.append(number(random() % 7));
            else
                bytes.push_back(static_cast<char>(random()));
        }
        (void)peer.put(bytes);
        if (round % 3 == 0)
            shutdown(peer.get(), SHUT_WR);
    }
    EXPECT_TRUE(there.answers());
    wait_until([&] { return there.object->GetConnectionCount() == 0; });
}

TEST(posix_ipc, an_announced_length_takes_no_memory) {
    const server there({.max_message = qorIpcLongestMessage, .memory = 1 << 20});
    const struct mallinfo2 before = mallinfo2();
    std::vector<std::unique_ptr<raw_peer>> peers;
    for (int i = 0; i < 100; ++i) {
        peers.push_back(std::make_unique<raw_peer>(there.path));
        (void)greet(*peers.back());
        ASSERT_TRUE(peers.back()->put(number(qorIpcLongestMessage) + number(0) + "a few bytes"));
    }
    EXPECT_TRUE(there.answers());
    const struct mallinfo2 after = mallinfo2();
    EXPECT_LT(after.uordblks + after.hblkhd, before.uordblks + before.hblkhd + (8 << 20));
}

TEST(posix_ipc, those_who_flood_share_a_bounded_memory) {
    const server there({.max_message = qorIpcLongestMessage, .memory = 4 << 20, .silence = 500});
    std::vector<std::thread> floods;
    std::atomic<uint64> sent{0};
    for (int i = 0; i < 8; ++i)
        floods.emplace_back([&] {
            raw_peer peer(there.path);
            (void)greet(peer);
            if (!peer.put(number(qorIpcLongestMessage) + number(0)))
                return;
            // Much more than there may be, and never the end of the message.
            const std::string piece(64 << 10, 'x');
            for (int j = 0; j < 256; ++j) {
                if (!peer.put(piece))
                    return;
                sent += piece.size();
            }
            (void)peer.is_closed_by_other();
        });
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(there.answers());
    for (std::thread& each : floods)
        each.join();
    EXPECT_TRUE(there.told->wait([&] { return there.told->ends.size() >= 8; }));
    const std::lock_guard hold(there.told->lock);
    EXPECT_GT(std::count(there.told->ends.begin(), there.told->ends.end(), qorIpcEnd::overloaded) +
                  std::count(there.told->ends.begin(), there.told->ends.end(), qorIpcEnd::silent),
              0);
}

TEST(posix_ipc, a_peer_that_does_not_read_costs_nobody_else_anything) {
    const server there({.send_queue = 100'000});
    raw_peer deaf(there.path);
    (void)greet(deaf);
    std::thread floods([&] {
        const std::string piece = frame(0, std::string(10'000, 'x'));
        for (int i = 0; i < 1000; ++i)
            if (!deaf.put(piece))
                return;
    });
    for (int i = 0; i < 50; ++i)
        EXPECT_TRUE(there.answers());
    floods.join(); // the server reads all of it: only its answers are dropped
}

TEST(posix_ipc, half_closed_connections_end) {
    const server there;
    raw_peer peer(there.path);
    (void)greet(peer);
    ASSERT_TRUE(peer.put(frame(0, "last") + number(1000) + number(0) + "the beginning of another"));
    shutdown(peer.get(), SHUT_WR);
    EXPECT_EQ(peer.next(), frame(0, "last"));
    EXPECT_TRUE(peer.is_closed_by_other());
    ASSERT_TRUE(there.told->wait([&] { return there.told->ends.size() == 1; }));
    EXPECT_EQ(there.told->ends.front(), qorIpcEnd::lost);
    EXPECT_EQ(there.told->count, 1u);
}

TEST(posix_ipc, those_who_never_greet_are_dropped) {
    const server there({.connect = 100});
    raw_peer mute(there.path);
    raw_peer slow(there.path);
    ASSERT_TRUE(slow.put(hello().substr(0, 10)));
    EXPECT_TRUE(mute.is_closed_by_other());
    EXPECT_TRUE(slow.is_closed_by_other());
    EXPECT_EQ(there.told->accepted_now(), 0u);
}

TEST(posix_ipc, a_silent_peer_is_noticed_and_one_that_lives_is_not) {
    const server there({.silence = 300});
    const auto idle = there.connect({.silence = 300});
    raw_peer silent(there.path);
    (void)greet(silent);
    EXPECT_TRUE(silent.is_closed_by_other());
    ASSERT_TRUE(there.told->wait([&] { return there.told->ends.size() == 1; }));
    EXPECT_EQ(there.told->ends.front(), qorIpcEnd::silent);
    std::this_thread::sleep_for(700ms); // more than twice the limit
    std::string back;
    EXPECT_TRUE(idle->Send("still there"));
    EXPECT_TRUE(idle->Receive(back)) << last_error();
}

TEST(posix_ipc, signs_of_life_come_as_often_as_the_peer_needs_them) {
    const server there({.silence = 0});
    raw_peer peer(there.path);
    ASSERT_TRUE(peer.put(hello(1000, 300)));
    EXPECT_EQ(peer.get(24).size(), 24u);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(peer.get(8), frame(1, ""));
}
