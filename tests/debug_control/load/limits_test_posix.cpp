// The limits of a listener before a login, and of its output for a peer that does not read: real sockets, the real
// clock.
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

// Makes a connection that the listener keeps, because its handshake is done.
std::unique_ptr<tls_peer> enter(uint16 port, const source& from) {
    auto peer = std::make_unique<tls_peer>(port, from);
    return peer->shake_hands() ? std::move(peer) : nullptr;
}

// Returns the host's descriptors after displaced connections are closed.
long descriptors_at_most(host_process& host, long count) {
    holdings as_many;
    as_many.descriptors = count;
    return host.measure_at_rest(as_many).descriptors;
}

TEST(limits, connections_of_one_user) {
    host_process host;
    const holdings before = host.measure();
    std::vector<std::unique_ptr<tls_peer>> inside;
    for (int i = 0; i < 20; ++i)
        // Any address of this host.
        if (auto peer = enter(host.port(), {address_of(static_cast<unsigned>(i)), {}}))
            inside.push_back(std::move(peer));
    const long kept = descriptors_at_most(host, before.descriptors + 4) - before.descriptors;
    std::printf("connections before a login, of one user: %ld (4)\n", kept);
    EXPECT_EQ(kept, 4);

    // Four connections stay; a fifth gets the place of the oldest.
    const test_clock::time_point begin = test_clock::now();
    tls_peer user(host.port(), {address_of(1), {}});
    std::unique_ptr<tls_peer> entered;
    while (entered == nullptr && seconds_since(begin) < 60)
        entered = enter(host.port(), {address_of(1), {}});
    ASSERT_NE(entered, nullptr);
    std::printf("a fifth one of the same user gets in after %.1f s (10)\n", seconds_since(begin));
    EXPECT_TRUE(is_logged_in(entered->log_in(ada)));
    if (whole_load()) {
        EXPECT_LE(seconds_since(begin), 10);
    }
}

// All places are taken by connections that stay, four each of eight users, or one each of 32.
TEST(limits, a_newcomer_gets_in) {
    QOR_NEEDS_SEVERAL_USERS();
    for (const unsigned users : {8u, 32u}) {
        host_process host;
        const holdings before = host.measure();
        std::vector<std::unique_ptr<tls_peer>> inside;
        for (unsigned i = 0; i < 32; ++i) {
            inside.push_back(enter(host.port(), user_number(1 + i % users)));
            ASSERT_NE(inside.back(), nullptr) << i;
        }
        EXPECT_EQ(host.measure().descriptors, before.descriptors + 32);
        const test_clock::time_point begin = test_clock::now();
        std::unique_ptr<tls_peer> newcomer;
        while (newcomer == nullptr && seconds_since(begin) < 60)
            newcomer = enter(host.port(), user_number(100));
        ASSERT_NE(newcomer, nullptr);
        const double time = seconds_since(begin);
        std::printf("all 32 places taken by %u users who stay: a newcomer gets in after %.1f s (10)\n", users, time);
        EXPECT_EQ(descriptors_at_most(host, before.descriptors + 32), before.descriptors + 32);
        EXPECT_TRUE(is_logged_in(newcomer->log_in(ada)));
        if (whole_load()) {
            EXPECT_LE(time, 10);
        }
        inside.clear();
        newcomer.reset();
        EXPECT_EQ(host.measure_at_rest(before).descriptors, before.descriptors);
    }
}

// After a login the account counts, from any address.
TEST(limits, sessions) {
    std::string accounts;
    for (int i = 0; i < 8; ++i)
        accounts += plain_scram::account("c" + std::to_string(i), "secret");
    host_process host(accounts);
    std::vector<std::unique_ptr<tls_peer>> inside;
    const auto log_in = [&](const plain_scram::client& who) {
        auto peer = std::make_unique<tls_peer>(host.port(), source{address_of(1), {}});
        EXPECT_TRUE(peer->shake_hands());
        const std::optional<frame> answer = peer->log_in(who);
        EXPECT_TRUE(answer);
        inside.push_back(std::move(peer));
        return answer ? *answer : frame{};
    };
    const auto is_full = [](const frame& answer) {
        return answer.type == frame_type::refusal && answer.payload == qor::control::number_payload(3);
    };
    const auto keep = [&] {
        for (const auto& each : inside)
            (void)each->send(frame_type::heartbeat, 0, {});
    };
    for (int i = 0; i < 8; ++i)
        EXPECT_TRUE(is_logged_in(log_in(ada)));
    EXPECT_TRUE(is_full(log_in(ada)));
    EXPECT_TRUE(inside.back()->socket.is_cut_within(10s));
    // A wrong password gets the same answer as always.
    EXPECT_EQ(log_in(wrong).payload, qor::control::number_payload(1));
    inside.pop_back();
    for (int account = 0; account < 7; ++account)
        for (int i = 0; i < 8; ++i) {
            keep();
            EXPECT_TRUE(is_logged_in(log_in({"c" + std::to_string(account), "secret", {}})));
        }
    const plain_scram::client bob{"bob", "other", {}};
    EXPECT_TRUE(is_full(log_in(bob)));
    std::printf("sessions: 8 of an account (8), 64 in all (64)\n");
    inside.clear();
    // Ended sessions make room as soon as the listener notices.
    while (!is_logged_in(log_in(bob))) {
    }
}

TEST(limits, refusals_on_one_connection) {
    host_process host;
    tls_peer peer(host.port(), user_number(1));
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

// As many connections as allowed, each with one guess after another, from one address after another.
TEST(limits, guesses_of_one_user) {
    QOR_NEEDS_SEVERAL_USERS();
    host_process host;
    const int seconds = load(3, 130);
    const test_clock::time_point begin = test_clock::now();
    const test_clock::time_point end = begin + std::chrono::seconds(seconds);
    std::mutex lock;
    std::vector<double> answered;
    std::vector<std::thread> guessers;
    std::atomic<unsigned> addresses = 0;
    for (int i = 0; i < 4; ++i)
        guessers.emplace_back([&] {
            while (test_clock::now() < end) {
                source from = user_number(1);
                from.address = address_of(++addresses);
                tls_peer peer(host.port(), from);
                // One guess on each connection, because the delay is then shortest.
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
    // Meanwhile another user is not delayed, at the same account.
    std::this_thread::sleep_for(std::chrono::seconds(seconds) / 2);
    const test_clock::time_point other = test_clock::now();
    tls_peer neighbour(host.port(), user_number(2));
    EXPECT_TRUE(neighbour.shake_hands());
    EXPECT_TRUE(is_logged_in(neighbour.log_in(ada)));
    const double login = seconds_since(other);
    for (std::thread& each : guessers)
        each.join();
    std::size_t most = 0;
    std::sort(answered.begin(), answered.end());
    for (auto each = answered.begin(); each != answered.end(); ++each)
        most = std::max<std::size_t>(
            most, static_cast<std::size_t>(std::upper_bound(each, answered.end(), *each + 59.5) - each));
    std::printf("guesses of one user, on 4 connections at a time: %zu in %d s, at most %zu in a minute (20); "
                "a login of another one meanwhile: %.0f ms\n",
                answered.size(), seconds, most, login * 1000);
    EXPECT_EQ(most, 20u);
}

// Each user has his own limit, but together they do not get as many guesses at one account.
TEST(limits, guesses_at_one_account) {
    QOR_NEEDS_SEVERAL_USERS();
    host_process host;
    const test_clock::time_point begin = test_clock::now();
    unsigned answered = 0, user = 0;
    // Each user makes two guesses. Second guesses are answered only until the account has had twenty wrong ones.
    std::vector<std::unique_ptr<tls_peer>> waiting;
    for (; user < 12; ++user)
        for (int i = 0; i < 2; ++i) {
            auto peer = enter(host.port(), user_number(1 + user));
            ASSERT_NE(peer, nullptr);
            plain_scram::client who = wrong;
            const auto first = peer->begin_login(who);
            ASSERT_TRUE(first);
            ASSERT_TRUE(peer->send(frame_type::login_final, 2, who.final(first->payload)));
            if (is_refusal(peer->next(10s)))
                ++answered;
            else
                waiting.push_back(std::move(peer));
        }
    const bool in_a_minute = seconds_since(begin) < 55;
    std::printf("guesses at one account by %u users, two each: %u answered within %.0f s (22)\n", user, answered,
                seconds_since(begin));
    if (in_a_minute) {
        EXPECT_EQ(answered, 22u);
    }
    // The right password is still accepted.
    const auto owner = enter(host.port(), user_number(100));
    ASSERT_NE(owner, nullptr);
    EXPECT_TRUE(is_logged_in(owner->log_in(ada)));
}

// A peer that connects and does not log in. The clock moves by itself only in the whole form.
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
    tls_peer real(host.port(), user_number(1));
    const test_clock::time_point connected = test_clock::now();
    ASSERT_TRUE(real.shake_hands());
    while (seconds_since(connected) < 200 && real.send(frame_type::heartbeat, 0, {}) &&
           !real.socket.is_cut_within(1s)) {
    }
    const double real_time = seconds_since(connected);
    std::printf("time for a login, the real clock: %.1f s (120)\n", real_time);
    EXPECT_NEAR(real_time, 120, 2);
}

} // namespace
