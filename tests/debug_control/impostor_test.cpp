// What a console refuses: listeners that are not what they should be.
#include "fake_listener.h"
#include "loopback.h"

#include <atomic>

namespace {

using namespace qor::test;
using qor::control::frame;
using qor::control::frame_type;
using qor::control::key_pointer;

constexpr int times = 100;

class impostors : public loopback_fixture {
protected:
    impostors() : m_key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519")) {}

    // A listener that goes through a login by itself, with a server of its own choice.
    fake_listener::conduct login_by(plain_scram::server how, fake_tls::settings settings = {}) {
        return [this, how, settings](fake_listener& through) {
            fake_tls tls(through, m_key.get(), settings);
            frame request;
            if (log_in(tls, how))
                tls.next(request);
        };
    }

    // False: the console did not go on with it.
    bool log_in(fake_tls& tls, const plain_scram::server& how) {
        frame first, last;
        if (!tls.next(first))
            return false;
        ++m_logins;
        tls.send(frame_type::login_first_answer, first.request, how.first(first.payload));
        if (!tls.next(last))
            return false;
        ++m_proofs;
        tls.send(frame_type::login_final_answer, last.request, how.final(first.payload, last.payload));
        return true;
    }

    // An honest listener until the login is done; then all requests are answered alike.
    fake_listener::conduct answers(frame_type type, std::string payload) {
        return [this, type, payload](fake_listener& through) {
            fake_tls tls(through, m_key.get(), {});
            frame request;
            for (bool on = log_in(tls, {"secret"}); on && tls.next(request);)
                tls.send(type, request.request, payload);
        };
    }

    void expect_login_fails(uint16 at, uint32 number) {
        control_pointer control = make();
        ASSERT_TRUE(control->Connect("127.0.0.1", at)) << last_error();
        ASSERT_FALSE(control->Login("ada", "secret"));
        ASSERT_EQ(error_number(), number) << last_error();
        qorStringArray out;
        ASSERT_FALSE(control->GetCodes(out));
    }

    void expect_connect_fails(uint16 at, uint32 number) {
        control_pointer control = make();
        ASSERT_FALSE(control->Connect("127.0.0.1", at));
        ASSERT_EQ(error_number(), number) << last_error();
    }

    key_pointer m_key;
    std::atomic<int> m_logins = 0; // that were begun
    std::atomic<int> m_proofs = 0; // of the client's, that were sent
};

// The fake itself does all as it should here; otherwise the rest would prove nothing.
TEST_F(impostors, one_that_knows_the_password_is_none) {
    fake_listener honest(login_by({"secret"}));
    control_pointer control = make();
    ASSERT_TRUE(control->Connect("127.0.0.1", honest.port())) << last_error();
    EXPECT_TRUE(control->Login("ada", "secret")) << last_error();
}

TEST_F(impostors, one_that_does_not_know_the_password) {
    fake_listener impostor(login_by({"guess"}));
    for (int i = 0; i < times; ++i)
        expect_login_fails(impostor.port(), qorError_debug_server_not_proved);
    EXPECT_FALSE(std::filesystem::exists(folder() / "known-hosts"));
}

// Few iterations make the password cheap to guess from the proof, many keep the console busy: neither gets a proof.
TEST_F(impostors, iterations_out_of_bounds) {
    for (const char* const iterations : {"1", "4095", "2000001", "1000000000", "99999999999999999999", "0", "-1", "4096x", ""}) {
        fake_listener impostor([this, iterations](fake_listener& through) {
            fake_tls tls(through, m_key.get(), {});
            frame request;
            plain_scram::server how{"secret"};
            how.iterations = iterations;
            if (!tls.next(request))
                return;
            tls.send(frame_type::login_first_answer, request.request, how.first(request.payload));
            if (tls.next(request))
                ++m_proofs;
        });
        for (int i = 0; i < times; ++i)
            expect_login_fails(impostor.port(), qorError_debug_protocol);
    }
    EXPECT_EQ(m_proofs, 0);
}

TEST_F(impostors, nonces_and_salts_that_cannot_be) {
    const auto answers = {"", "r=,s=QUJD,i=4096", "r=NONCE,s=QUJD,i=4096", "r=othernonce,s=QUJD,i=4096", "r=NONCEx,s=,i=4096",
                          "r=NONCEx,s=QUJ,i=4096", "m=x,r=NONCEx,s=QUJD,i=4096", "e=other-error", "s=QUJD,r=NONCEx,i=4096"};
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
        expect_login_fails(impostor.port(), qorError_debug_protocol);
    }
    EXPECT_EQ(m_proofs, 0);
}

TEST_F(impostors, other_versions_and_protocols) {
    const fake_tls::settings wrong[] = {{TLS1_2_VERSION, "qor-debug/1"}, {TLS1_3_VERSION, ""}, {TLS1_3_VERSION, "http/1.1"}};
    for (const fake_tls::settings& each : wrong) {
        fake_listener other(login_by({"secret"}, each));
        for (int i = 0; i < times; ++i)
            expect_connect_fails(other.port(), qorError_debug_not_ours);
    }
    EXPECT_EQ(m_logins, 0);
}

TEST_F(impostors, a_web_server) {
    fake_listener web([](fake_listener& through) {
        through.read();
        through.write("HTTP/1.1 400 Bad Request\r\nConnection: close\r\n\r\n");
    });
    for (int i = 0; i < times; ++i)
        expect_connect_fails(web.port(), qorError_debug_not_ours);
}

TEST_F(impostors, one_that_hangs_up) {
    fake_listener busy([](fake_listener&) {});
    for (int i = 0; i < times; ++i)
        expect_connect_fails(busy.port(), qorError_debug_busy);
}

// From the first login on another key is refused before a byte of the next login.
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

    // The same place with another key: the listener's port goes into a line of its own, below a comment.
    m_logins = 0;
    std::string changed = line;
    changed.replace(10, std::to_string(at).size(), std::to_string(port()));
    std::ofstream(known_hosts, std::ios::binary) << "# mine\n\n" << changed;
    for (int i = 0; i < times; ++i) {
        expect_connect_fails(port(), qorError_debug_key_changed);
        ASSERT_NE(last_error().find("line 3"), std::string::npos) << last_error();
        ASSERT_NE(last_error().find(known_hosts), std::string::npos) << last_error();
    }
    // Taken out, the next login notes the new one, and the comment stays.
    std::ofstream(known_hosts, std::ios::binary) << "# mine\n";
    control_pointer control = connect();
    EXPECT_TRUE(control->Login("ada", "secret")) << last_error();
    EXPECT_TRUE(read_file(known_hosts).starts_with("# mine\n127.0.0.1 " + std::to_string(port()) + " sha256 "));
}

TEST_F(impostors, a_damaged_line_of_known_hosts) {
    for (const char* const line : {"127.0.0.1", "127.0.0.1 1", "127.0.0.1 1 sha256", "127.0.0.1 1 sha256 00", "a b md5 00",
                                   "127.0.0.1 1 sha256 zz00000000000000000000000000000000000000000000000000000000000000"}) {
        private_file(folder(), "known-hosts", "# one\n" + std::string(line) + "\n");
        expect_connect_fails(port(), qorError_debug_known_hosts_line);
        EXPECT_NE(last_error().find("Line 2"), std::string::npos) << last_error();
    }
}

// ---- peers that are there and say nothing: each test waits as long as the console does

TEST_F(impostors, one_that_never_answers) {
    fake_listener silent([](fake_listener& through) {
        while (!through.read().empty())
            ;
    });
    expect_connect_fails(silent.port(), qorError_debug_cannot_connect);
    EXPECT_NE(last_error().find("it does not answer"), std::string::npos) << last_error();
}

// Frozen after the login: no heartbeats come, and the sink is told.
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
    std::printf("noticed after %lld s\n", static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(
                                              std::chrono::steady_clock::now() - begin).count()));
    qorStringArray out;
    EXPECT_FALSE(control->GetCodes(out));
    EXPECT_NE(last_error().find("it was silent for too long"), std::string::npos) << last_error();
}

// What a listener may say after a login, and a console must not believe.
TEST_F(impostors, answers_that_make_no_sense) {
    using qor::control::number_payload;
    const std::pair<frame_type, std::string> wrong[] = {
        {frame_type::get_codes_answer, "123"},
        {frame_type::get_codes_answer, std::string("\0\0\0\0\0\5a", 7)},
        {frame_type::get_codes_answer, number_payload(0) + "\xff\xff"},
        {frame_type::enable_code_answer, {}},
        {frame_type{0x1234}, {}}};
    for (const auto& [type, payload] : wrong) {
        fake_listener odd(answers(type, payload));
        control_pointer control = make();
        ASSERT_TRUE(control->Connect("127.0.0.1", odd.port())) << last_error();
        ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
        qorStringArray out;
        EXPECT_FALSE(control->GetCodes(out));
        EXPECT_EQ(error_number(), qorError_debug_protocol);
    }
}

// A list whose pages never end.
TEST_F(impostors, pages_that_lead_back) {
    fake_listener odd(answers(frame_type::get_codes_answer, qor::control::number_payload(7)));
    control_pointer control = make();
    ASSERT_TRUE(control->Connect("127.0.0.1", odd.port())) << last_error();
    ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
    qorStringArray out;
    EXPECT_FALSE(control->GetCodes(out));
    EXPECT_EQ(error_number(), qorError_debug_protocol);
}

} // namespace
