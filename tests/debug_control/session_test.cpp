// The listener's side of a connection: peers of all kinds in memory, and a clock that the test controls.
#include "session_fixture.h"

#include <sstream>

namespace {

using namespace qor::test;

TEST_F(sessions, a_login_and_the_requests) {
    memory_client peer;
    auto of = connect();
    plain_scram::client ada = m_ada;
    peer.exchange(*of, m_now);
    ada.binding = peer.binding();
    const std::string first = begin(*of, peer, ada);
    peer.send(frame_type::login_final, 2, ada.final(first));
    peer.exchange(*of, m_now);
    const std::vector<frame> answers = peer.frames();
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].type, frame_type::login_final_answer);
    EXPECT_EQ(answers[0].payload, ada.expected(first, ada.final(first)));

    const uint32 code = qorDebugAllocateCode("session.test");
    EXPECT_EQ(ask(*of, peer, frame_type::enable_code, "\1session.test").type, frame_type::enable_code_answer);
    EXPECT_TRUE(qor::glue::debug_is_on(code));
    EXPECT_EQ(list(*of, peer, frame_type::get_enabled_codes), (std::vector<std::string>{"session.test"}));
    EXPECT_EQ(ask(*of, peer, frame_type::enable_code, std::string("\0session.*", 10)).type,
              frame_type::enable_code_answer);
    EXPECT_FALSE(qor::glue::debug_is_on(code));
    qorDebugEnableCode("session.test", true);
    EXPECT_EQ(ask(*of, peer, frame_type::disable_all, {}).type, frame_type::disable_all_answer);
    EXPECT_FALSE(qor::glue::debug_is_on(code));
    EXPECT_EQ(list(*of, peer, frame_type::get_enabled_codes), (std::vector<std::string>{}));
    EXPECT_EQ(ask(*of, peer, frame_type::enable_code, "\1").type, frame_type::refusal);
    EXPECT_EQ(ask(*of, peer, frame_type::enable_code, '\1' + std::string(4097, 'x')).type, frame_type::refusal);
}

// Many names fill several pages, and a name of excessive length is in none.
TEST_F(sessions, lists_come_in_pages) {
    std::vector<std::string> expected;
    for (int i = 0; i < 400; ++i) {
        expected.push_back("pages." + std::to_string(i) + std::string(500, 'x'));
        qorDebugAllocateCode(expected.back().c_str());
        qorDebugEnableCode(expected.back().c_str(), i % 2 == 0);
    }
    qorDebugAllocateCode(("pages.long" + std::string(4096, 'x')).c_str());
    memory_client peer;
    auto of = connect();
    ASSERT_TRUE(succeeds(*of, peer, m_ada));
    std::vector<std::string> all = list(*of, peer, frame_type::get_codes);
    std::erase_if(all, [](const std::string& name) { return !name.starts_with("pages."); });
    EXPECT_EQ(all, expected);
    std::vector<std::string> even;
    for (std::size_t i = 0; i < expected.size(); i += 2)
        even.push_back(expected[i]);
    EXPECT_EQ(list(*of, peer, frame_type::get_enabled_codes), even);
    ask(*of, peer, frame_type::disable_all, {});
}

TEST_F(sessions, refusals_come_later_and_later_and_end_the_connection) {
    memory_client peer;
    auto of = connect();
    const plain_scram::client wrong{"ada", "guess", {}};
    auto delay = 250ms;
    for (int i = 0; i < 5; ++i, delay *= 2) {
        EXPECT_TRUE(log_in(*of, peer, wrong).empty());
        pass(*of, delay - 1ms, &peer);
        EXPECT_TRUE(peer.frames().empty());
        EXPECT_FALSE(of->is_over());
        pass(*of, 1ms, &peer);
        const std::vector<frame> answers = peer.frames();
        ASSERT_EQ(answers.size(), 1u);
        EXPECT_EQ(answers[0].type, frame_type::refusal);
        EXPECT_EQ(answers[0].payload, qor::control::number_payload(1));
    }
    EXPECT_TRUE(of->is_over());
}

TEST_F(sessions, a_wrong_password_may_be_followed_by_the_right_one) {
    memory_client peer;
    auto of = connect();
    EXPECT_TRUE(log_in(*of, peer, {"ada", "guess", {}}).empty());
    pass(*of, 250ms, &peer);
    EXPECT_EQ(peer.frames().size(), 1u);
    EXPECT_TRUE(succeeds(*of, peer, m_ada));
}

// The steps and answers are the same; the salt of an unknown user stays the same.
TEST_F(sessions, an_unknown_user_is_treated_like_a_known_one) {
    std::string salts[2];
    for (std::string& salt : salts) {
        memory_client peer;
        auto of = connect();
        peer.exchange(*of, m_now);
        plain_scram::client nobody{"nobody", "guess", peer.binding()};
        const std::string first = begin(*of, peer, nobody);
        salt = plain_scram::attributes(first)['s'];
        EXPECT_EQ(plain_scram::attributes(first)['i'], "4096");
        peer.send(frame_type::login_final, 2, nobody.final(first));
        peer.exchange(*of, m_now);
        EXPECT_FALSE(of->is_over());
        pass(*of, 250ms, &peer);
        const std::vector<frame> answers = peer.frames();
        ASSERT_EQ(answers.size(), 1u);
        EXPECT_EQ(answers[0].type, frame_type::refusal);
    }
    EXPECT_EQ(salts[0], salts[1]);
}

TEST_F(sessions, twenty_wrong_tries_a_minute_over_all_connections) {
    const plain_scram::client wrong{"ada", "guess", {}};
    for (int i = 0; i < 20; ++i) {
        memory_client peer;
        auto of = connect();
        EXPECT_TRUE(log_in(*of, peer, wrong).empty());
        pass(*of, 250ms, &peer);
        EXPECT_EQ(peer.frames().size(), 1u) << i;
    }
    // The next attempt waits until the first is a minute old, even with the right password; other sources do not wait.
    memory_client peer;
    auto of = connect();
    EXPECT_TRUE(log_in(*of, peer, m_ada).empty());
    memory_client other_peer;
    auto other = connect("4321");
    EXPECT_TRUE(succeeds(*other, other_peer, {"bob", "other", {}}));
    pass_alive(*of, 50s, peer);
    EXPECT_TRUE(peer.frames().empty());
    pass_alive(*of, 10s, peer);
    const std::vector<frame> answers = peer.frames();
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].type, frame_type::login_final_answer);
}

TEST_F(sessions, right_ones_do_not_count) {
    for (int i = 0; i < 50; ++i) {
        memory_client peer;
        auto of = connect();
        EXPECT_TRUE(succeeds(*of, peer, m_ada));
    }
}

// ---- time

TEST_F(sessions, a_handshake_takes_five_seconds_at_most) {
    auto silent = connect();
    pass(*silent, 4999ms);
    EXPECT_FALSE(silent->is_over());
    pass(*silent, 1ms);
    EXPECT_TRUE(silent->is_over());

    memory_client peer;
    auto slow = connect();
    const std::string hello = peer.take();
    for (std::size_t at = 0; at < 5; ++at) {
        EXPECT_FALSE(slow->is_over());
        slow->receive(hello.substr(at, 1), m_now);
        pass(*slow, 1s);
    }
    EXPECT_TRUE(slow->is_over());
}

TEST_F(sessions, a_frame_takes_five_seconds_at_most) {
    for (const bool logged_in : {false, true}) {
        memory_client peer;
        auto of = connect();
        peer.exchange(*of, m_now);
        if (logged_in) {
            ASSERT_TRUE(succeeds(*of, peer, m_ada));
        }
        std::string bytes;
        qor::control::append_frame(bytes, frame_type::login_first, 1, "n,,n=ada,r=x");
        for (std::size_t at = 0; at < 5; ++at) {
            ASSERT_FALSE(of->is_over());
            peer.send(bytes.substr(at, 1));
            peer.exchange(*of, m_now);
            pass(*of, 1s, &peer);
        }
        EXPECT_TRUE(of->is_over());
    }
}

// An incomplete TLS record contains no frame yet, but counts as one that has begun.
TEST_F(sessions, a_record_takes_five_seconds_at_most) {
    memory_client peer;
    auto of = connect();
    ASSERT_TRUE(succeeds(*of, peer, m_ada));
    peer.send(frame_type::get_codes, 1, qor::control::number_payload(0));
    const std::string record = peer.take();
    for (std::size_t at = 0; at < 5; ++at) {
        ASSERT_FALSE(of->is_over());
        of->receive(record.substr(at, 1), m_now);
        pass(*of, 1s);
    }
    EXPECT_TRUE(of->is_over());
}

TEST_F(sessions, a_login_takes_two_minutes_at_most) {
    memory_client peer;
    auto of = connect();
    peer.exchange(*of, m_now);
    pass_alive(*of, 115s, peer);
    EXPECT_FALSE(of->is_over());
    pass_alive(*of, 5s, peer);
    EXPECT_TRUE(of->is_over());

    memory_client user;
    auto logged_in = connect();
    ASSERT_TRUE(succeeds(*logged_in, user, m_ada));
    pass_alive(*logged_in, 600s, user);
    EXPECT_FALSE(logged_in->is_over());
}

TEST_F(sessions, who_is_silent_for_fifteen_seconds_is_gone) {
    memory_client peer;
    auto of = connect();
    ASSERT_TRUE(succeeds(*of, peer, m_ada));
    pass(*of, 14999ms, &peer);
    EXPECT_FALSE(of->is_over());
    peer.frames();
    EXPECT_EQ(peer.heartbeats, 2u);
    pass(*of, 1ms, &peer);
    EXPECT_TRUE(of->is_over());
}

// ---- refused input

// A hello of 120 KB gets no memory, however many records it comes in, nor does a record that is longer than a hello.
TEST_F(sessions, a_hello_that_claims_to_be_long) {
    for (const std::string_view record :
         {std::string_view("\x16\3\1\0\4\1\1\xe0\0", 9), std::string_view("\x16\3\1\0\1\1", 6),
          std::string_view("\x16\3\1\x11\1", 5)}) {
        auto of = connect();
        of->receive(record, m_now);
        EXPECT_TRUE(of->is_over());
    }
}

// A peer that has begun a handshake costs the most, so anything that would prolong it ends it: a hello that continues
// in another record, and one that would need a request for another key.
TEST_F(sessions, a_hello_that_needs_another_one) {
    memory_client whole;
    const std::string hello = whole.take();
    auto begun = connect();
    begun->receive(std::string("\x16\3\1\0\x64", 5) + hello.substr(5, 100), m_now);
    EXPECT_TRUE(begun->is_over());
    EXPECT_TRUE(begun->outgoing().empty());

    // X25519 is replaced by a meaningless group (RFC 8701), in the list of groups and beside its key.
    std::string other_key = hello;
    for (const std::string_view x25519 : {std::string_view("\0\x1d\0\x17", 4), std::string_view("\0\x1d\0\x20", 4)}) {
        const std::size_t at = other_key.find(x25519);
        ASSERT_NE(at, std::string::npos);
        other_key.replace(at, 2, "\x0a\x0a");
    }
    auto asked = connect();
    asked->receive(other_key, m_now);
    EXPECT_TRUE(asked->is_over());
    EXPECT_TRUE(asked->outgoing().empty());
}

TEST_F(sessions, what_comes_instead_of_the_last_message_of_a_handshake) {
    const std::string means_nothing("\x14\3\3\0\1\1", 6); // RFC 8446, D.4
    const auto after_hello = [this](memory_client& peer) {
        auto of = connect();
        of->receive(peer.take(), m_now);
        EXPECT_FALSE(of->is_over());
        peer.give(std::exchange(of->outgoing(), {}));
        return of;
    };
    {
        memory_client peer;
        auto of = after_hello(peer);
        for (int i = 0; i < 1000; ++i)
            of->receive(means_nothing, m_now);
        EXPECT_FALSE(of->is_over());
        EXPECT_TRUE(of->outgoing().empty());
        EXPECT_TRUE(succeeds(*of, peer, m_ada));
        of->receive(means_nothing, m_now);
        EXPECT_TRUE(of->is_over());
    }
    // A warning that others ignore, a record with other content, and one that cannot be decrypted.
    for (const std::string_view other :
         {std::string_view("\x15\3\3\0\2\1\x5a", 7), std::string_view("\x14\3\3\0\1\2", 6),
          std::string_view("\x17\3\3\0\x11-----------------", 22)}) {
        memory_client peer;
        auto of = after_hello(peer);
        of->receive(other, m_now);
        EXPECT_TRUE(of->is_over());
    }
}

// The received part of a record is kept until the record is complete; before a login that is at most a frame.
TEST_F(sessions, records_are_short_before_a_login) {
    const auto heartbeats = [](int count) {
        std::string bytes;
        for (int i = 0; i < count; ++i)
            qor::control::append_frame(bytes, frame_type::heartbeat, 0, {});
        return bytes;
    };
    memory_client peer;
    auto of = connect();
    peer.exchange(*of, m_now);
    peer.send(heartbeats(171)); // 2,052 bytes
    peer.exchange(*of, m_now);
    EXPECT_FALSE(of->is_over());
    peer.send(heartbeats(200));
    of->receive(peer.take().substr(0, 5), m_now);
    EXPECT_TRUE(of->is_over());

    memory_client user;
    auto logged_in = connect();
    ASSERT_TRUE(succeeds(*logged_in, user, m_ada));
    user.send(heartbeats(1365)); // 16,380 bytes
    user.exchange(*logged_in, m_now);
    EXPECT_FALSE(logged_in->is_over());
}

TEST_F(sessions, what_is_out_of_turn) {
    const auto after = [this](auto steps) {
        memory_client peer;
        auto of = connect();
        peer.exchange(*of, m_now);
        steps(*of, peer);
        peer.exchange(*of, m_now);
        return of->is_over();
    };
    for (const frame_type type : {frame_type::login_final, frame_type::get_codes, frame_type::get_enabled_codes,
                                  frame_type::enable_code, frame_type::disable_all, frame_type::refusal,
                                  frame_type::login_first_answer, frame_type{0}, frame_type{0xffff}})
        EXPECT_TRUE(after([&](session&, memory_client& peer) { peer.send(type, 1, "1234"); }));
    const auto first_twice = [this](session& of, memory_client& peer) {
        begin(of, peer, m_ada);
        peer.send(frame_type::login_first, 1, m_ada.first());
    };
    EXPECT_TRUE(after(first_twice));
    // Nothing may arrive while the answer to a wrong attempt is delayed.
    const auto while_waiting = [this](session& of, memory_client& peer) {
        log_in(of, peer, {"ada", "guess", {}});
        peer.send(frame_type::login_first, 1, m_ada.first());
    };
    EXPECT_TRUE(after(while_waiting));
    for (const frame_type type : {frame_type::login_first, frame_type::login_final, frame_type{7}, frame_type::refusal})
        EXPECT_TRUE(after([&](session& of, memory_client& peer) {
            ASSERT_TRUE(succeeds(of, peer, m_ada));
            peer.send(type, 1, m_ada.first());
        }));
}

TEST_F(sessions, malformed_payloads_end_the_connection) {
    const std::pair<frame_type, std::string> wrong[] = {{frame_type::get_codes, "123"},
                                                        {frame_type::get_enabled_codes, "12345"},
                                                        {frame_type::enable_code, ""},
                                                        {frame_type::enable_code, "\2x"},
                                                        {frame_type::disable_all, "x"},
                                                        {frame_type::heartbeat, "x"},
                                                        {frame_type::enable_code, std::string("\1a\0b", 4)}};
    for (const auto& [type, payload] : wrong) {
        memory_client peer;
        auto of = connect();
        ASSERT_TRUE(succeeds(*of, peer, m_ada));
        peer.send(type, 1, payload);
        peer.exchange(*of, m_now);
        EXPECT_TRUE(of->is_over());
    }
}

TEST_F(sessions, a_peer_that_never_reads_is_dropped) {
    for (int i = 0; i < 500; ++i)
        qorDebugAllocateCode(("unread." + std::to_string(i) + std::string(200, 'x')).c_str());
    memory_client peer;
    auto of = connect();
    ASSERT_TRUE(succeeds(*of, peer, m_ada));
    std::size_t most = 0;
    for (int i = 0; i < 10 && !of->is_over(); ++i) {
        peer.send(frame_type::get_codes, 1, qor::control::number_payload(0));
        of->receive(peer.take(), m_now);
        most = std::max(most, of->outgoing().size());
    }
    EXPECT_TRUE(of->is_over());
    EXPECT_LE(most, 256u * 1024);
}

// A guess at an account with many wrong ones waits, from any source, even if it is right; a source that guessed wrong
// waits for a minute.
TEST_F(sessions, twenty_wrong_tries_a_minute_at_an_account) {
    const plain_scram::client wrong{"ada", "guess", {}};
    for (int i = 0; i < 20; ++i) {
        memory_client peer;
        auto of = connect("source " + std::to_string(i));
        EXPECT_TRUE(log_in(*of, peer, wrong).empty());
    }
    memory_client owner, stranger, other;
    auto of_owner = connect("new");
    EXPECT_TRUE(log_in(*of_owner, owner, m_ada).empty());
    auto of_stranger = connect("source 0");
    EXPECT_TRUE(log_in(*of_stranger, stranger, m_ada).empty());
    auto of_other = connect("source 0");
    EXPECT_TRUE(succeeds(*of_other, other, {"bob", "other", {}}));
    const moment begin = m_now;
    pass(*of_owner, 1999ms, &owner);
    EXPECT_TRUE(owner.frames().empty());
    pass(*of_owner, 1ms, &owner);
    EXPECT_EQ(owner.frames().at(0).type, frame_type::login_final_answer);
    while (m_now < begin + 59s) {
        stranger.send(frame_type::heartbeat, 0, {});
        stranger.exchange(*of_stranger, m_now);
        pass(*of_stranger, 1s, &stranger);
    }
    EXPECT_TRUE(stranger.frames().empty());
    pass(*of_stranger, 1s, &stranger);
    EXPECT_EQ(stranger.frames().at(0).type, frame_type::login_final_answer);
}

// The password is neither on the wire nor in the decrypted messages for the server.
TEST_F(sessions, the_password_is_never_sent) {
    memory_client peer;
    auto of = connect();
    ASSERT_TRUE(succeeds(*of, peer, m_ada));
    EXPECT_GT(peer.wire.size(), 1000u);
    EXPECT_EQ(peer.wire.find("secret"), std::string::npos);
    EXPECT_EQ(peer.wire.find("ada"), std::string::npos);
    EXPECT_EQ(peer.plain.find("secret"), std::string::npos);
}

// ---- the trace

TEST_F(sessions, names_in_the_trace_stay_in_their_quotes) {
    const auto quoted = [](std::string_view text) { return qor::control::quoted(text); };
    EXPECT_EQ(quoted("ada lovelace"), "'ada lovelace'");
    EXPECT_EQ(quoted(""), "''");
    EXPECT_EQ(quoted("a\nb\x1b[0m\\\xc3\xa4\x7f"), "'a\\x0ab\\x1b[0m\\x5c\\xc3\\xa4\\x7f'");
    EXPECT_EQ(quoted("x' from 10.0.0.1 port 7"), "'x\\x27 from 10.0.0.1 port 7'");
    EXPECT_EQ(quoted(std::string(255, 'x')), "'" + std::string(255, 'x') + "'");
    EXPECT_EQ(quoted(std::string(256, 'x')), "'" + std::string(255, 'x') + "'+1");
    EXPECT_EQ(quoted(std::string(255, 'x') + "'+7" + std::string(3, 'y')), "'" + std::string(255, 'x') + "'+6");
    // Different names that are not truncated stay different in the trace.
    EXPECT_NE(quoted("a\nb"), quoted("a\\x0ab"));
}

// Only the listener decides where a name ends.
TEST_F(sessions, fields_of_the_trace_cannot_be_forged) {
    const std::string path = m_folder / "trace";
    ASSERT_TRUE(qorDebugAttachFile(path.c_str()));
    ASSERT_TRUE(qorDebugEnableCode("system.debug-control", true));
    memory_client peer;
    auto of = connect();
    log_in(*of, peer, {"bob' from 10.0.0.1 port 7\nrefused 'eve", "guess", {}});
    memory_client user;
    auto logged_in = connect();
    ASSERT_TRUE(succeeds(*logged_in, user, m_ada));
    ask(*logged_in, user, frame_type::enable_code, "\1x' off\r\n'eve' from 10.0.0.1 switches 'y");
    ask(*logged_in, user, frame_type::enable_code, '\1' + std::string(300, 'z'));
    ask(*logged_in, user, frame_type::disable_all, {});
    ASSERT_TRUE(qorDebugAttachFile(nullptr));
    std::vector<std::string> said;
    std::istringstream stream(read_file(path));
    for (std::string line; std::getline(stream, line);)
        said.push_back(line.substr(line.find(" system.debug-control ") + 22));
    EXPECT_EQ(
        said,
        (std::vector<std::string>{
            "refused 'bob\\x27 from 10.0.0.1 port 7\\x0arefused \\x27eve' from 127.0.0.1 port 9",
            "login of 'ada' from 127.0.0.1 port 9",
            "'ada' from 127.0.0.1 port 9 switches 'x\\x27 off\\x0d\\x0a\\x27eve\\x27 from 10.0.0.1 switches \\x27y' on",
            "'ada' from 127.0.0.1 port 9 switches '" + std::string(255, 'z') + "'+45 on",
            "'ada' from 127.0.0.1 port 9 switches all codes off"}));
}

// ---- limits after a login

TEST_F(sessions, of_an_account) {
    std::vector<std::unique_ptr<session>> all;
    std::vector<std::unique_ptr<memory_client>> peers;
    const auto log_in_once_more = [&](const plain_scram::client& who) {
        peers.push_back(std::make_unique<memory_client>());
        all.push_back(connect("source " + std::to_string(all.size())));
        return log_in(*all.back(), *peers.back(), who);
    };
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(log_in_once_more(m_ada).at(0).type, frame_type::login_final_answer);
    const std::vector<frame> answers = log_in_once_more(m_ada);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].type, frame_type::refusal);
    EXPECT_EQ(answers[0].payload, qor::control::number_payload(3));
    EXPECT_TRUE(all.back()->is_over());
    EXPECT_EQ(log_in_once_more({"bob", "other", {}}).at(0).type, frame_type::login_final_answer);
    all.front().reset();
    EXPECT_EQ(log_in_once_more(m_ada).at(0).type, frame_type::login_final_answer);
}

TEST_F(sessions, switches_for_codes_to_come_are_limited) {
    memory_client peer;
    auto of = connect();
    ASSERT_TRUE(succeeds(*of, peer, m_ada));
    ask(*of, peer, frame_type::disable_all, {});
    // The worst case for matching.
    const auto name = [](int i) {
        return "\1*" + std::string(static_cast<std::size_t>(i % 7 + 1), 'a') + '*' + std::string(4000, 'a') +
               std::to_string(i);
    };
    for (int i = 0; i < 256; ++i)
        ASSERT_EQ(ask(*of, peer, frame_type::enable_code, name(i)).type, frame_type::enable_code_answer) << i;
    const frame full = ask(*of, peer, frame_type::enable_code, name(256));
    EXPECT_EQ(full.type, frame_type::refusal);
    EXPECT_EQ(full.payload, qor::control::number_payload(3));
    EXPECT_EQ(ask(*of, peer, frame_type::enable_code, name(7)).type, frame_type::enable_code_answer);
    const uint32 code = qorDebugAllocateCode((std::string(4090, 'a') + "255").c_str());
    EXPECT_TRUE(qor::glue::debug_is_on(code));
    EXPECT_EQ(ask(*of, peer, frame_type::disable_all, {}).type, frame_type::disable_all_answer);
    EXPECT_FALSE(qor::glue::debug_is_on(code));
    EXPECT_EQ(ask(*of, peer, frame_type::enable_code, name(256)).type, frame_type::enable_code_answer);
    ask(*of, peer, frame_type::disable_all, {});
}

} // namespace
