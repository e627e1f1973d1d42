// Peers that take too long are cut off. Seen from outside: real sockets, the real clock, all peers in parallel.
#include "host_process.h"
#include "socket_peer.h"
#include "support/load.h"

#include <functional>
#include <mutex>
#include <thread>

namespace {

using namespace qor::test;

// The wire bytes of something that is never complete.
struct beginning {
    std::string at_once;
    std::vector<std::string> drops{}; // one in each following second
};

struct dawdler {
    const char* what;
    bool of_handshake; // if true, its time counts from the connection on
    std::function<beginning(tls_peer&)> begin;
};

// One byte per second, and the time to notice.
constexpr double at_most = 7;

std::vector<std::string> single_bytes(const std::string& of) {
    std::vector<std::string> all;
    for (const char each : of)
        all.emplace_back(1, each);
    return all;
}

// Returns the contents as TLS records.
std::string wire_of(tls_peer& peer, const std::string& contents) {
    peer.tls.send(contents);
    return peer.tls.take();
}

std::string long_frame() {
    std::string bytes;
    qor::control::append_frame(bytes, frame_type::login_first, 1, std::string(2000, 'x'));
    return bytes;
}

std::string heartbeat() {
    std::string bytes;
    qor::control::append_frame(bytes, frame_type::heartbeat, 0, {});
    return bytes;
}

// Returns records with one byte of a frame each.
std::vector<std::string> records_of_bytes(tls_peer& peer, const std::string& contents) {
    std::vector<std::string> all;
    for (std::size_t i = 0; i < 20; ++i)
        all.push_back(wire_of(peer, contents.substr(i, 1)));
    return all;
}

std::string last_of_handshake(tls_peer& peer) {
    std::string last;
    peer.flush();
    while (!peer.tls.is_open()) {
        const auto came = peer.socket.read(10s);
        if (!came || came->empty())
            break;
        peer.tls.give(*came);
        last = peer.tls.take();
    }
    return last;
}

void log_in(tls_peer& peer) {
    EXPECT_TRUE(peer.shake_hands());
    EXPECT_TRUE(is_logged_in(peer.log_in({"ada", "secret", {}})));
}

const dawdler dawdlers[] = {
    {"a connection and not a byte", true, [](tls_peer&) { return beginning{}; }},
    {"half a hello", true, [](tls_peer& peer) { return beginning{peer.tls.take().substr(0, 100)}; }},
    {"a hello, a byte a second", true,
     [](tls_peer& peer) {
         return beginning{"", single_bytes(peer.tls.take())};
     }},
    {"a handshake but for its last message", true,
     [](tls_peer& peer) {
         last_of_handshake(peer);
         return beginning{};
     }},
    {"the last message of a handshake, a byte a second", true,
     [](tls_peer& peer) {
         return beginning{"", single_bytes(last_of_handshake(peer))};
     }},
    {"half a frame before the login", false,
     [](tls_peer& peer) {
         EXPECT_TRUE(peer.shake_hands());
         return beginning{wire_of(peer, long_frame().substr(0, 1000))};
     }},
    {"a frame before the login, a byte a second", false,
     [](tls_peer& peer) {
         EXPECT_TRUE(peer.shake_hands());
         return beginning{"", records_of_bytes(peer, long_frame())};
     }},
    {"half a record before the login", false,
     [](tls_peer& peer) {
         EXPECT_TRUE(peer.shake_hands());
         return beginning{wire_of(peer, long_frame()).substr(0, 1000)};
     }},
    {"a record before the login, a byte a second", false,
     [](tls_peer& peer) {
         EXPECT_TRUE(peer.shake_hands());
         return beginning{"", single_bytes(wire_of(peer, long_frame()))};
     }},
    {"half a frame behind a whole one, after the login", false,
     [](tls_peer& peer) {
         log_in(peer);
         return beginning{wire_of(peer, heartbeat() + long_frame().substr(0, 5))};
     }},
    {"a frame after the login, a byte a second", false,
     [](tls_peer& peer) {
         log_in(peer);
         return beginning{"", records_of_bytes(peer, long_frame())};
     }},
    {"a record after the login, a byte a second", false,
     [](tls_peer& peer) {
         log_in(peer);
         return beginning{"", single_bytes(wire_of(peer, long_frame()))};
     }},
};

// Returns the seconds from the beginning until the peer was cut off; less than 0 if it never was.
double time_until_cut(const dawdler& who, uint16 port, const source& from) {
    tls_peer peer(port, from);
    const test_clock::time_point connected = test_clock::now();
    const beginning how = who.begin(peer);
    const test_clock::time_point begin = who.of_handshake ? connected : test_clock::now();
    peer.socket.write(how.at_once);
    auto next = test_clock::now();
    for (auto drop = how.drops.begin(); seconds_since(begin) < 20; next += 1s) {
        if (peer.socket.is_cut_within(left_until(next)))
            return seconds_since(begin);
        if (drop != how.drops.end())
            peer.socket.write(*drop++);
    }
    return -1;
}

TEST(cut, what_has_begun_and_is_not_whole) {
    QOR_NEEDS_SEVERAL_USERS();
    host_process host;
    const holdings before = host.measure();
    std::mutex lock;
    std::vector<std::thread> all;
    unsigned number = 0;
    // Few enough that no connection has to make room.
    for (int i = 0; i < load(1, 2); ++i)
        for (const dawdler& each : dawdlers)
            all.emplace_back([&, from = user_number(++number)] {
                const double time = time_until_cut(each, host.port(), from);
                const std::lock_guard hold(lock);
                std::printf("%s: cut after %.2f s (at most %g)\n", each.what, time, at_most);
                // The listener starts counting before the peer does, on a busy machine long before.
                EXPECT_GT(time, 3) << each.what;
                EXPECT_LT(time, at_most) << each.what;
            });
    for (std::thread& each : all)
        each.join();
    EXPECT_EQ(host.measure_at_rest(before).descriptors, before.descriptors);
}

} // namespace
