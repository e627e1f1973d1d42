// Costs of attacks for the process of a listener: memory, descriptors, and delays of others.
#include "host_process.h"
#include "socket_peer.h"
#include "support/load.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <limits>
#include <memory>
#include <thread>

namespace {

using namespace qor::test;

constexpr long KiB = 1024;
const plain_scram::client ada{"ada", "secret", {}};

std::string frame_of(std::size_t payload) {
    std::string bytes;
    qor::control::append_frame(bytes, frame_type::login_first, 1, std::string(payload, 'x'));
    return bytes;
}

std::optional<frame> log_in(const host_process& host, const source& from) {
    tls_peer peer(host.port(), from);
    return peer.shake_hands() ? peer.log_in(ada) : std::nullopt;
}

// Returns the resources after everything that the first connection creates exists.
holdings warmed_up(host_process& host) {
    const holdings at_first = host.measure();
    EXPECT_TRUE(is_logged_in(log_in(host, user_number(1))));
    return host.measure_at_rest(at_first);
}

void shake_hands(tls_peer& peer) { EXPECT_TRUE(peer.shake_hands()); }

// Returns a record with a handshake message of that length.
std::string handshake_record(std::size_t length) {
    const auto number = [](std::size_t of) { return std::string{static_cast<char>(of >> 8), static_cast<char>(of)}; };
    return "\x16\3\1" + number(length + 4) + std::string("\1\0", 2) + number(length) + std::string(length, '\3');
}

// Returns the longest record that is accepted after a handshake, without its last byte.
std::string all_but_a_byte(tls_peer& peer) {
    peer.tls.send(std::string(12 + 2048, 'x'));
    const std::string record = peer.tls.take();
    return record.substr(0, record.size() - 1);
}

// The point at which a peer stays without logging in.
struct stage {
    const char* what;
    std::function<void(tls_peer&)> act;
};

const stage stages[] = {
    {"connected", [](tls_peer&) {}},
    {"half a hello", [](tls_peer& peer) { peer.socket.write(peer.tls.take().substr(0, 100)); }},
    {"the longest hello, but for a byte",
     [](tls_peer& peer) { peer.socket.write(handshake_record(4096).substr(0, 4096)); }},
    {"a handshake but for its last message",
     [](tls_peer& peer) {
         peer.flush();
         while (!peer.tls.is_open()) {
             const auto came = peer.socket.read(10s);
             ASSERT_TRUE(came && !came->empty());
             peer.tls.give(*came);
         }
         // In its place meaningless records, and one of the maximum length.
         for (int i = 0; i < 100; ++i)
             peer.socket.write(std::string("\x14\3\3\0\1\1", 6));
         peer.socket.write("\x17\3\3\x10\xff" + std::string(4096, 'x'));
     }},
    {"a handshake", shake_hands},
    {"the longest frame, but for a byte",
     [](tls_peer& peer) {
         shake_hands(peer);
         peer.tls.send(frame_of(2048).substr(0, 12 + 2047));
         peer.flush();
     }},
    {"the longest frame and the longest record, but for a byte",
     [](tls_peer& peer) {
         shake_hands(peer);
         peer.tls.send(frame_of(2048).substr(0, 12 + 2047));
         peer.flush();
         peer.socket.write(all_but_a_byte(peer));
     }},
    {"a thousand frames, and the longest ones but for a byte",
     [](tls_peer& peer) {
         shake_hands(peer);
         for (int i = 0; i < 1000; ++i)
             peer.tls.send(frame_type::heartbeat, 0, {});
         peer.tls.send(frame_of(2048).substr(0, 12 + 2047));
         const std::string burst = peer.tls.take();
         peer.socket.write(burst + all_but_a_byte(peer));
     }},
    {"a login but for its last message",
     [](tls_peer& peer) {
         shake_hands(peer);
         plain_scram::client who = ada;
         who.name = std::string(255, 'a');
         who.nonce = std::string(1700, 'n');
         EXPECT_TRUE(peer.begin_login(who));
         peer.tls.send(frame_of(2048).substr(0, 12 + 2047));
         peer.flush();
         peer.socket.write(all_but_a_byte(peer));
     }},
};

double in_KiB(long bytes) { return static_cast<double>(bytes) / KiB; }

TEST(memory, of_connections_before_a_login) {
    QOR_NEEDS_SEVERAL_USERS();
    constexpr unsigned connections = 23; // leaves room for later connections
    for (const stage& each : stages) {
        host_process host;
        const holdings before = warmed_up(host);
        std::vector<std::unique_ptr<tls_peer>> all;
        for (unsigned i = 0; i < connections; ++i) {
            all.push_back(std::make_unique<tls_peer>(host.port(), user_number(2 + i)));
            each.act(*all.back());
        }
        // When the listener has answered a later peer, its thread has handled everything before.
        EXPECT_TRUE(is_logged_in(log_in(host, user_number(1))));
        const holdings now = host.measure();
        const double of_one = in_KiB(now.heap - before.heap) / connections;
        std::printf("%s: %.1f KiB for a connection (at most 32), %.0f for 32 (2048); %.0f more resident\n", each.what,
                    of_one, 32 * of_one, in_KiB(now.resident - before.resident));
        EXPECT_LE(of_one, 32) << each.what;
        EXPECT_LE(32 * of_one, 2048) << each.what;
        EXPECT_GT(of_one, 1) << each.what;
        all.clear();
        EXPECT_EQ(host.measure_at_rest(before).descriptors, before.descriptors);
    }
}

// The peer sends requests and reads no answers.
TEST(memory, of_a_peer_that_never_reads) {
    constexpr long limit = (256 + 16) * KiB;
    host_process host;
    const holdings before = warmed_up(host);
    long most = 0;
    int asked = 0;
    {
        tls_peer peer(host.port(), user_number(1), 4096);
        ASSERT_TRUE(peer.shake_hands());
        ASSERT_TRUE(is_logged_in(peer.log_in(ada)));
        const long logged_in = host.measure().heap;
        for (holdings now = host.measure(); now.descriptors > before.descriptors && asked < 1000;
             now = host.measure()) {
            if (peer.send(frame_type::get_codes, 1, qor::control::number_payload(0)))
                ++asked;
            // Only memory that stays counts, not a move between two buffers. On a busy machine a move may take long, so
            // a sum above the limit is measured again for five seconds.
            long stays = std::numeric_limits<long>::max();
            for (int look = 0; look < 6 || (stays - logged_in > limit && look < 500); ++look) {
                std::this_thread::sleep_for(10ms);
                stays = std::min(stays, host.measure().heap);
            }
            most = std::max(most, stays - logged_in);
        }
    }
    const holdings after = host.measure_at_rest(before);
    std::printf(
        "a peer that never reads: dropped when %d answers of 64 KiB were due, %.0f KiB of memory at most, %.0f KiB "
        "afterwards\n",
        asked, in_KiB(most), in_KiB(after.heap - before.heap));
    EXPECT_LE(in_KiB(most), in_KiB(limit));
    EXPECT_GT(in_KiB(most), 64);
    EXPECT_LE(asked, 16);
    EXPECT_LE(in_KiB(after.heap - before.heap), 64);
    EXPECT_EQ(after.descriptors, before.descriptors);
}

} // namespace
