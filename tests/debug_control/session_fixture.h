// The listener's side of a connection in memory, with a clock that the test controls.
#pragma once

#include "login/accounts.h"
#include "memory_client.h"
#include "private_file_of.h"

namespace qor::test {

using control::gate;
using control::session;

class sessions : public testing::Test {
protected:
    sessions() {
        const std::string users = private_file(
            m_folder, "users", plain_scram::account("ada", "secret") + plain_scram::account("bob", "other"));
        EXPECT_TRUE(m_accounts.open(users.c_str()));
        EXPECT_TRUE(m_accounts.open_key(m_key));
        m_context = control::make_server_context(m_key.get());
        m_host.context = m_context.get();
    }

    std::unique_ptr<session> connect(const std::string& source = "1234") {
        gate::place loser;
        const gate::place place = m_gate.enter(source, m_now, loser);
        EXPECT_NE(place, 0u);
        return std::make_unique<session>(m_host, sockets::source{source, "127.0.0.1 port 9"}, place, m_now);
    }

    // Advances the clock, and calls the session as often as it asked for.
    void pass(session& of, std::chrono::milliseconds time, memory_client* peer = nullptr) {
        const moment end = m_now + time;
        while (!of.is_over() && of.next_look() <= end) {
            m_now = std::max(m_now, of.next_look());
            of.look_at_clock(m_now);
            if (peer != nullptr)
                peer->exchange(of, m_now);
        }
        m_now = end;
    }

    // The same with a peer that sends heartbeats.
    void pass_alive(session& of, std::chrono::seconds time, memory_client& peer) {
        for (auto passed = 0s; passed < time && !of.is_over(); passed += 5s) {
            peer.send(frame_type::heartbeat, 0, {});
            peer.exchange(of, m_now);
            pass(of, 5s, &peer);
        }
    }

    // Logs in up to the answer to the first message.
    std::string begin(session& of, memory_client& peer, const plain_scram::client& who) {
        peer.send(frame_type::login_first, 1, who.first());
        peer.exchange(of, m_now);
        const std::vector<frame> answers = peer.frames();
        if (answers.size() != 1) {
            ADD_FAILURE() << answers.size();
            return {};
        }
        EXPECT_EQ(answers[0].type, frame_type::login_first_answer);
        EXPECT_EQ(answers[0].request, 1u);
        return answers[0].payload;
    }

    // Does a complete login and returns the answers that came at once.
    std::vector<frame> log_in(session& of, memory_client& peer, plain_scram::client who) {
        peer.exchange(of, m_now);
        who.binding = peer.binding();
        const std::string first = begin(of, peer, who);
        peer.send(frame_type::login_final, 2, who.final(first));
        peer.exchange(of, m_now);
        return peer.frames();
    }

    bool succeeds(session& of, memory_client& peer, const plain_scram::client& who) {
        const std::vector<frame> answers = log_in(of, peer, who);
        return answers.size() == 1 && answers[0].type == frame_type::login_final_answer;
    }

    frame ask(session& of, memory_client& peer, frame_type type, const std::string& payload) {
        peer.send(type, 77, payload);
        peer.exchange(of, m_now);
        const std::vector<frame> answers = peer.frames();
        EXPECT_EQ(answers.size(), 1u);
        if (answers.size() != 1)
            return {};
        EXPECT_EQ(answers[0].request, 77u);
        return answers[0];
    }

    std::vector<std::string> list(session& of, memory_client& peer, frame_type type) {
        std::vector<std::string> all;
        uint32 next = 0;
        do {
            control::name_page page;
            EXPECT_TRUE(control::read_page(ask(of, peer, type, control::number_payload(next)).payload, page));
            all.insert(all.end(), page.names.begin(), page.names.end());
            next = page.next;
        } while (next != 0);
        return all;
    }

    temp_folder m_folder;
    control::accounts m_accounts;
    control::key_pointer m_key;
    control::tls_context m_context;
    gate m_gate;
    control::session_host m_host{nullptr, m_gate, m_accounts, qorDebugAllocateCode("system.debug-control")};
    moment m_now{};
    const plain_scram::client m_ada{"ada", "secret", {}};
};

} // namespace qor::test
