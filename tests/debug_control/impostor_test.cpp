// Dishonest listeners that a console refuses.
#include "impostor_fixture.h"

namespace {

using namespace qor::test;

// Here the fake behaves correctly. Without this test the others would prove nothing.
TEST_F(impostors, one_that_knows_the_password_is_none) {
    fake_listener honest(login_by({"secret"}));
    control_pointer control = make();
    ASSERT_TRUE(control->Connect("127.0.0.1", honest.port())) << last_error();
    EXPECT_TRUE(control->Login("ada", "secret")) << last_error();
}

TEST_F(impostors, nonces_and_salts_that_cannot_be) {
    const auto answers = {"",
                          "r=,s=QUJD,i=4096",
                          "r=NONCE,s=QUJD,i=4096",
                          "r=othernonce,s=QUJD,i=4096",
                          "r=NONCEx,s=,i=4096",
                          "r=NONCEx,s=QUJ,i=4096",
                          "m=x,r=NONCEx,s=QUJD,i=4096",
                          "e=other-error",
                          "s=QUJD,r=NONCEx,i=4096"};
    for (const std::string text : answers) {
        fake_listener impostor([this, text](fake_listener& through) {
            fake_tls tls(through, m_key.get(), {});
            frame request;
            if (!tls.next(request))
                return;
            std::string answer = text;
            if (const std::size_t at = answer.find("NONCE"); at != answer.npos)
                answer.replace(at, 5, plain_scram::attributes(request.payload)['r']);
            tls.send(frame_type::login_first_answer, request.request, answer);
            if (tls.next(request))
                ++m_proofs;
        });
        EXPECT_TRUE(login_fails(impostor.port(), qorError_debug_protocol)) << last_error();
    }
    EXPECT_EQ(m_proofs, 0);
}

// After the first login, another key is refused before a byte of the next login is sent.
TEST_F(impostors, a_changed_key) {
    const std::string known_hosts = folder() / "known-hosts";
    uint16 at = 0;
    {
        fake_listener first(login_by({"secret"}));
        at = first.port();
        control_pointer control = make();
        ASSERT_TRUE(control->Connect("127.0.0.1", at)) << last_error();
        ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
    }
    const std::string line = read_file(known_hosts);
    EXPECT_TRUE(line.starts_with("127.0.0.1 " + std::to_string(at) + " sha256 ")) << line;

    // Another key at the same place: the listener's port goes into a line of its own, below a comment.
    m_logins = 0;
    std::string changed = line;
    changed.replace(10, std::to_string(at).size(), std::to_string(port()));
    std::ofstream(known_hosts, std::ios::binary) << "# mine\n\n" << changed;
    EXPECT_TRUE(connect_fails(port(), qorError_debug_key_changed)) << last_error();
    EXPECT_NE(last_error().find("line 3"), std::string::npos) << last_error();
    EXPECT_NE(last_error().find(known_hosts), std::string::npos) << last_error();
    // After the line is removed, the next login stores the new key and keeps the comment.
    std::ofstream(known_hosts, std::ios::binary) << "# mine\n";
    control_pointer control = connect();
    EXPECT_TRUE(control->Login("ada", "secret")) << last_error();
    EXPECT_TRUE(read_file(known_hosts).starts_with("# mine\n127.0.0.1 " + std::to_string(port()) + " sha256 "));
}

TEST_F(impostors, a_damaged_line_of_known_hosts) {
    for (const char* const line :
         {"127.0.0.1", "127.0.0.1 1", "127.0.0.1 1 sha256", "127.0.0.1 1 sha256 00", "a b md5 00",
          "127.0.0.1 1 sha256 zz00000000000000000000000000000000000000000000000000000000000000"}) {
        private_file(folder(), "known-hosts", "# one\n" + std::string(line) + "\n");
        EXPECT_TRUE(connect_fails(port(), qorError_debug_known_hosts_line)) << last_error();
        EXPECT_NE(last_error().find("Line 2"), std::string::npos) << last_error();
    }
}

// ---- silent peers: each test waits as long as the console does

TEST_F(impostors, one_that_never_answers) {
    fake_listener silent([](fake_listener& through) {
        while (!through.read().empty())
            ;
    });
    EXPECT_TRUE(connect_fails(silent.port(), qorError_debug_cannot_connect)) << last_error();
    EXPECT_NE(last_error().find("it does not answer"), std::string::npos) << last_error();
}

// The listener freezes after the login: no heartbeats come, and the sink is notified.
TEST_F(impostors, one_that_freezes) {
    fake_listener freezing([this](fake_listener& through) {
        fake_tls tls(through, m_key.get(), {});
        if (log_in(tls, {"secret"}))
            while (!through.read().empty())
                ;
    });
    control_pointer control = make();
    ASSERT_TRUE(control->Connect("127.0.0.1", freezing.port())) << last_error();
    ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
    counting_sink sink;
    ASSERT_TRUE(control->SetSink(&sink));
    const auto begin = std::chrono::steady_clock::now();
    sink.wait_for(1);
    std::printf(
        "noticed after %lld s\n",
        static_cast<long long>(
            std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin).count()));
    qorStringArray out;
    EXPECT_FALSE(control->GetCodes(out));
    EXPECT_NE(last_error().find("it sent nothing for too long"), std::string::npos) << last_error();
}

// Answers after a login that a console must reject.
TEST_F(impostors, answers_that_make_no_sense) {
    using qor::control::number_payload;
    const std::pair<frame_type, std::string> wrong[] = {{frame_type::get_codes_answer, "123"},
                                                        {frame_type::get_codes_answer, std::string("\0\0\0\0\0\5a", 7)},
                                                        {frame_type::get_codes_answer, number_payload(0) + "\xff\xff"},
                                                        {frame_type::enable_code_answer, {}},
                                                        {frame_type{0x1234}, {}}};
    for (const auto& [type, payload] : wrong) {
        fake_listener odd(answers(type, [payload = payload](uint32) { return payload; }));
        control_pointer control = make();
        ASSERT_TRUE(control->Connect("127.0.0.1", odd.port())) << last_error();
        ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
        qorStringArray out;
        EXPECT_FALSE(control->GetCodes(out));
        EXPECT_EQ(error_number(), qorError_debug_protocol);
    }
}

// Endless lists: their pages lead back, or to pages without a name, or to more and more pages.
TEST_F(impostors, endless_lists) {
    using qor::control::number_payload;
    std::string full = number_payload(0);
    while (qor::control::append_name(full, std::string(qor::control::name_limit, 'n')))
        ;
    std::string back = number_payload(7);
    ASSERT_TRUE(qor::control::append_name(back, "name"));
    const std::function<std::string(uint32)> lists[] = {[&](uint32) { return back; },
                                                        [&](uint32 page) { return number_payload(page + 1); },
                                                        [&](uint32 page) {
                                                            qor::control::set_next(full, page + 1);
                                                            return full;
                                                        }};
    for (const auto& page_of : lists) {
        fake_listener odd(answers(frame_type::get_codes_answer, page_of));
        control_pointer control = make();
        ASSERT_TRUE(control->Connect("127.0.0.1", odd.port())) << last_error();
        ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
        counting_sink sink;
        ASSERT_TRUE(control->SetSink(&sink));
        qorStringArray out;
        EXPECT_FALSE(control->GetCodes(out));
        EXPECT_EQ(error_number(), qorError_debug_protocol) << last_error();
        sink.wait_for(1);
        EXPECT_FALSE(control->DisableAll());
        EXPECT_EQ(error_number(), qorError_debug_protocol) << last_error();
    }
}

} // namespace
