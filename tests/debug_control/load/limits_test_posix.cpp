// The limits of a listener before a login, and of what it keeps for who does not read: real sockets, the real clock.
#include "host_process.h"
#include "session_fixture.h"
#include "socket_peer.h"
#include "support/load.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

namespace {

using namespace qor::test;

const plain_scram::client ada{"ada", "secret", {}};
const plain_scram::client wrong{"ada", "guess", {}};

// A connection that the listener keeps: it has a handshake with it.
std::unique_ptr<tls_peer> enter(uint16 port, const std::string& source) {
    auto peer = std::make_unique<tls_peer>(port, source);
    return peer->shake_hands() ? std::move(peer) : nullptr;
}

TEST(limits, connections_before_a_login) {
    host_process host;
    const holdings before = host.measure();
    std::vector<std::unique_ptr<tls_peer>> inside;
    unsigned of_one = 0;
    for (int i = 0; i < 10; ++i)
        if (auto peer = enter(host.port(), source_address(1))) {
            ++of_one;
            inside.push_back(std::move(peer));
        }
    std::printf("connections before a login, of one address: %u (4)\n", of_one);
    EXPECT_EQ(of_one, 4u);

    // Each from an address of its own, until nobody has got in for a long time.
    std::size_t first_lot = 0;
    unsigned turned_away = 0;
    unsigned number = 1;
    for (unsigned in_vain = 0; in_vain < 200;)
        if (auto peer = enter(host.port(), source_address(++number))) {
            inside.push_back(std::move(peer));
            in_vain = 0;
        } else {
            if (turned_away++ == 0)
                first_lot = inside.size();
            ++in_vain;
        }
    std::printf("connections before a login, in all: %zu (32), the first turned away with %zu inside (24 to 32)\n",
                inside.size(), first_lot);
    EXPECT_EQ(inside.size(), 32u);
    EXPECT_GE(first_lot, 24u);
    EXPECT_EQ(host.measure().descriptors, before.descriptors + 32);

    // Who logs in makes room for another one.
    EXPECT_TRUE(is_logged_in(inside.back()->log_in(ada)));
    unsigned entered = 0;
    for (int i = 0; i < 200; ++i)
        if (auto peer = enter(host.port(), source_address(++number))) {
            ++entered;
            inside.push_back(std::move(peer));
        }
    EXPECT_EQ(entered, 1u);
    EXPECT_EQ(host.measure().descriptors, before.descriptors + 33);
    inside.clear();
    EXPECT_EQ(host.measure_at_rest(before).descriptors, before.descriptors);
}

TEST(limits, refusals_on_one_connection) {
    host_process host;
    tls_peer peer(host.port(), source_address(1));
    ASSERT_TRUE(peer.shake_hands());
    double least = 0.25;
    std::string delays;
    int refusals = 0;
    for (;; least *= 2, ++refusals) {
        plain_scram::client who = wrong;
        const auto first = peer.begin_login(who);
        if (!first)
            break;
        const auto begin = test_clock::now();
        ASSERT_TRUE(peer.send(frame_type::login_final, 2, who.final(first->payload)));
        ASSERT_TRUE(is_refusal(peer.next()));
        const double time = seconds_since(begin);
        EXPECT_GE(time, least);
        char text[32];
        std::snprintf(text, sizeof text, " %.2f", time);
        delays += text;
    }
    std::printf("refusals on one connection: %d (5), after%s s (0.25, 0.5, 1, 2, 4)\n", refusals, delays.c_str());
    EXPECT_EQ(refusals, 5);
}

// As many connections as there may be, each with one guess after another.
TEST(limits, guesses_from_one_address) {
    host_process host;
    const int seconds = load(3, 130);
    const test_clock::time_point begin = test_clock::now();
    const test_clock::time_point end = begin + std::chrono::seconds(seconds);
    std::mutex lock;
    std::vector<double> answered;
    std::vector<std::thread> guessers;
    for (int i = 0; i < 4; ++i)
        guessers.emplace_back([&] {
            while (test_clock::now() < end) {
                tls_peer peer(host.port(), source_address(1));
                // One guess on each connection: the delay is shortest then.
                if (!peer.shake_hands())
                    continue;
                plain_scram::client who = wrong;
                const auto first = peer.begin_login(who);
                if (!first || !peer.send(frame_type::login_final, 2, who.final(first->payload)))
                    continue;
                std::optional<frame> answer;
                while (!answer && test_clock::now() < end && peer.send(frame_type::heartbeat, 0, {}))
                    answer = peer.next(std::min<std::chrono::milliseconds>(5s, left_until(end)));
                const std::lock_guard hold(lock);
                if (answer)
                    answered.push_back(seconds_since(begin));
            }
        });
    // All the while another address is not held up.
    std::this_thread::sleep_for(std::chrono::seconds(seconds) / 2);
    const test_clock::time_point other = test_clock::now();
    tls_peer neighbour(host.port(), source_address(2));
    EXPECT_TRUE(neighbour.shake_hands());
    EXPECT_TRUE(is_logged_in(neighbour.log_in(ada)));
    const double login = seconds_since(other);
    for (std::thread& each : guessers)
        each.join();
    std::size_t most = 0;
    std::sort(answered.begin(), answered.end());
    for (auto each = answered.begin(); each != answered.end(); ++each)
        most = std::max<std::size_t>(most,
                                     static_cast<std::size_t>(std::upper_bound(each, answered.end(), *each + 59.5) - each));
    std::printf("guesses of one address, on 4 connections at a time: %zu in %d s, at most %zu in a minute (20); "
                "a login of another one meanwhile: %.0f ms\n",
                answered.size(), seconds, most, login * 1000);
    EXPECT_EQ(most, 20u);
}

// A peer that is there and does not log in; the clock moves by itself in the whole form only.
class grace : public sessions {};

TEST_F(grace, for_a_login) {
    memory_client peer;
    auto of = connect();
    peer.exchange(*of, m_now);
    const moment begin = m_now;
    for (; !of->is_over() && m_now < begin + 200s; pass(*of, 100ms, &peer)) {
        peer.send(frame_type::heartbeat, 0, {});
        peer.exchange(*of, m_now);
    }
    const double time = std::chrono::duration<double>(m_now - begin).count();
    std::printf("time for a login, the clock moved: %.1f s (120)\n", time);
    EXPECT_NEAR(time, 120, 0.1);
    if (!whole_load())
        return;
    host_process host;
    tls_peer real(host.port(), source_address(1));
    const test_clock::time_point connected = test_clock::now();
    ASSERT_TRUE(real.shake_hands());
    while (seconds_since(connected) < 200 && real.send(frame_type::heartbeat, 0, {}) && !real.socket.is_cut_within(1s)) {
    }
    const double real_time = seconds_since(connected);
    std::printf("time for a login, the real clock: %.1f s (120)\n", real_time);
    EXPECT_NEAR(real_time, 120, 2);
}

} // namespace
