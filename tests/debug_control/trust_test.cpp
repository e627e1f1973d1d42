// The trust of a console: it distinguishes a listener that has not proved itself from one that has, and accepts only
// payloads that the protocol defines.
#include "impostor_fixture.h"
#include "login/known_hosts.h"

namespace {

using namespace qor::test;
using qor::control::number_payload;
using qor::control::refusal_code;

std::string refusal(refusal_code code) { return number_payload(static_cast<uint32>(code)); }

class trust : public impostors {
protected:
    static control_pointer connected(const control_pointer& control, uint16 at) {
        EXPECT_TRUE(control->Connect("127.0.0.1", at)) << last_error();
        return control;
    }

    // Returns the fingerprint of the key that a control has met; empty if the control says that it knows the key.
    static std::string unknown_key(const control_pointer& of) {
        zetSmartPointer<IQORDebugControl2> control;
        EXPECT_EQ(of->QueryInterface("IQORDebugControl2", reinterpret_cast<void**>(control.Out())), 1);
        qorString fingerprint;
        bool is_known = false;
        EXPECT_TRUE(control->GetListenerKey(fingerprint, is_known)) << last_error();
        return is_known ? "" : fingerprint.Text();
    }

    // Gets the bytes of the public key by another function of OpenSSL.
    static std::string fingerprint(EVP_PKEY* key) {
        unsigned char* bytes = nullptr;
        const int size = i2d_PUBKEY(key, &bytes);
        const std::string hash = plain_scram::hash({reinterpret_cast<char*>(bytes), static_cast<std::size_t>(size)});
        OPENSSL_free(bytes);
        std::string text;
        for (const char each : hash) {
            char digits[3];
            std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(each));
            text += digits;
        }
        return text;
    }

    // Accepts a proof and refuses it, as often as the console tries again.
    fake_listener::conduct refuse(EVP_PKEY* key, int times) {
        return [this, key, times](fake_listener& through) {
            fake_tls tls(through, key, {});
            frame request;
            for (int i = 0; i < times && tls.next(request); ++i) {
                tls.send(frame_type::login_first_answer, request.request,
                         plain_scram::server{"any"}.first(request.payload));
                if (!tls.next(request))
                    return;
                ++m_proofs;
                tls.send(frame_type::refusal, request.request, refusal(refusal_code::credentials));
            }
            if (times != 1)
                tls.next(request);
        };
    }
};

// Each refusal warns about the listener and gives the fingerprint that identifies it.
TEST_F(trust, a_refusal_by_somebody_who_has_proved_nothing) {
    fake_listener impostor(refuse(m_key.get(), 3));
    const control_pointer control = connected(make(), impostor.port());
    const std::string key = fingerprint(m_key.get());
    EXPECT_EQ(unknown_key(control), key);
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(control->Login("ada", "secret"));
        EXPECT_EQ(error_number(), qorError_credentials_refused);
        EXPECT_NE(last_error().find(key), std::string::npos) << last_error();
        EXPECT_NE(last_error().find("has not proved its identity"), std::string::npos) << last_error();
    }
    EXPECT_EQ(m_proofs, 3);
}

// The real listener causes the same warning, until a login has proved it.
TEST_F(trust, a_refusal_by_one_that_is_known) {
    control_pointer control = connect();
    EXPECT_NE(unknown_key(control), "");
    EXPECT_FALSE(control->Login("ada", "guess"));
    EXPECT_NE(last_error(), "The user name or the password was refused.");
    ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
    EXPECT_EQ(unknown_key(control), "");
    control = connect();
    EXPECT_EQ(unknown_key(control), "");
    EXPECT_FALSE(control->Login("ada", "guess"));
    EXPECT_EQ(error_number(), qorError_credentials_refused);
    EXPECT_EQ(last_error(), "The user name or the password was refused.");
}

// If the key is stored before the first login, a listener with another key never receives a password.
TEST_F(trust, a_key_that_is_noted_first) {
    const auto noted = [&](uint16 at, EVP_PKEY* key) {
        return qor::control::known_hosts(folder() / "known-hosts")
            .remember("127.0.0.1", at, qor::control::fingerprint_of(key));
    };
    fake_listener impostor(refuse(m_key.get(), 1));
    const key_pointer other(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
    ASSERT_TRUE(noted(impostor.port(), other.get())) << last_error();
    EXPECT_TRUE(connect_fails(impostor.port(), qorError_debug_key_changed)) << last_error();
    EXPECT_FALSE(noted(impostor.port(), m_key.get()));
    EXPECT_EQ(error_number(), qorError_debug_key_changed);
    fake_listener honest(login_by({"secret"}));
    ASSERT_TRUE(noted(honest.port(), m_key.get())) << last_error();
    const control_pointer control = connected(make(), honest.port());
    EXPECT_EQ(unknown_key(control), "");
    EXPECT_TRUE(control->Login("ada", "secret")) << last_error();
    EXPECT_FALSE(qor::control::known_hosts(folder() / "known-hosts").remember("a b", 1, {}));
    EXPECT_EQ(error_number(), qorError_no_such_host);
}

// The next password goes to the key that the user has compared.
TEST_F(trust, another_key_on_the_way_back) {
    const key_pointer other(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
    int connections = 0;
    fake_listener impostor(
        [&](fake_listener& through) { refuse(connections++ == 0 ? m_key.get() : other.get(), 1)(through); });
    const control_pointer control = connected(make(), impostor.port());
    EXPECT_FALSE(control->Login("ada", "secret"));
    EXPECT_EQ(error_number(), qorError_credentials_refused);
    EXPECT_FALSE(control->Login("ada", "secret"));
    EXPECT_EQ(error_number(), qorError_debug_other_key) << last_error();
    EXPECT_NE(last_error().find(fingerprint(other.get())), std::string::npos) << last_error();
    EXPECT_EQ(m_proofs, 1);
}

// ---- payloads that docs/debug-control.md does not define

using operation = std::function<bool(const control_pointer&)>;

const operation enable = [](const control_pointer& of) { return of->EnableCode("name", true); };
const operation enable_long = [](const control_pointer& of) {
    return of->EnableCode(std::string(4097, 'n').c_str(), true);
};
const operation disable_all = [](const control_pointer& of) { return of->DisableAll(); };
const operation list = [](const control_pointer& of) {
    qorStringArray out;
    return of->GetCodes(out);
};
const operation list_enabled = [](const control_pointer& of) {
    qorStringArray out;
    return of->GetEnabledCodes(out);
};

TEST_F(trust, answers_of_another_form) {
    const std::string page = number_payload(0);
    struct {
        const operation& ask;
        frame_type type;
        std::string payload;
        uint32 error; // 0: success
    } const all[] = {
        {enable, frame_type::enable_code_answer, "", 0},
        {enable, frame_type::enable_code_answer, "x", qorError_debug_protocol},
        {enable, frame_type::refusal, refusal(refusal_code::no_room), qorError_debug_switches_full},
        {enable, frame_type::refusal, refusal(refusal_code::request), qorError_debug_protocol},
        {enable, frame_type::refusal, refusal(refusal_code::credentials), qorError_debug_protocol},
        {enable_long, frame_type::refusal, refusal(refusal_code::request), qorError_debug_refused},
        {enable_long, frame_type::refusal, refusal(refusal_code::credentials), qorError_debug_protocol},
        {enable_long, frame_type::refusal, "", qorError_debug_protocol},
        {enable_long, frame_type::refusal, refusal(refusal_code::request) + '\0', qorError_debug_protocol},
        {enable_long, frame_type::refusal, number_payload(0), qorError_debug_protocol},
        {enable_long, frame_type::refusal, number_payload(3), qorError_debug_protocol},
        {disable_all, frame_type::disable_all_answer, "", 0},
        {disable_all, frame_type::disable_all_answer, std::string(1, '\0'), qorError_debug_protocol},
        {disable_all, frame_type::refusal, refusal(refusal_code::request), qorError_debug_protocol},
        {list, frame_type::get_codes_answer, page, 0},
        {list, frame_type::get_codes_answer, page + std::string("\0\3a\0b", 5), qorError_debug_protocol},
        {list, frame_type::refusal, refusal(refusal_code::request), qorError_debug_protocol},
        {list, frame_type::get_enabled_codes_answer, page, qorError_debug_protocol},
        {list_enabled, frame_type::get_enabled_codes_answer, page, 0},
        {list_enabled, frame_type::refusal, refusal(refusal_code::request), qorError_debug_protocol},
    };
    for (const auto& each : all) {
        fake_listener odd(answers(each.type, [&](uint32) { return each.payload; }));
        const control_pointer control = connected(make(), odd.port());
        ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
        EXPECT_EQ(each.ask(control), each.error == 0) << &each - all;
        if (each.error != 0) {
            EXPECT_EQ(error_number(), each.error) << &each - all << last_error();
        }
    }
}

TEST_F(trust, heartbeats_say_nothing) {
    struct {
        uint32 request;
        std::string payload;
        bool fits;
    } const all[] = {{0, "", true}, {1, "", false}, {0, "x", false}};
    for (const auto& each : all) {
        fake_listener odd([&](fake_listener& through) {
            fake_tls tls(through, m_key.get(), {});
            frame request;
            if (!log_in(tls, {"secret"}) || !tls.next(request))
                return;
            tls.send(frame_type::heartbeat, each.request, each.payload);
            tls.send(frame_type::disable_all_answer, request.request, "");
            tls.next(request);
        });
        const control_pointer control = connected(make(), odd.port());
        ASSERT_TRUE(control->Login("ada", "secret")) << last_error();
        EXPECT_EQ(control->DisableAll(), each.fits) << each.request << each.payload;
        if (!each.fits) {
            EXPECT_EQ(error_number(), qorError_debug_protocol) << last_error();
        }
    }
}

// A refusal replaces the last message and has one meaning only.
TEST_F(trust, logins_that_are_refused_in_another_way) {
    struct {
        bool first;
        std::string payload;
        uint32 error;
    } const all[] = {{false, refusal(refusal_code::credentials), qorError_credentials_refused},
                     {false, refusal(refusal_code::no_room), qorError_debug_sessions_full},
                     {true, refusal(refusal_code::credentials), qorError_debug_protocol},
                     {true, refusal(refusal_code::no_room), qorError_debug_protocol},
                     {true, refusal(refusal_code::request), qorError_debug_protocol},
                     {false, refusal(refusal_code::request), qorError_debug_protocol},
                     {false, "", qorError_debug_protocol},
                     {false, refusal(refusal_code::credentials) + "x", qorError_debug_protocol}};
    for (const auto& each : all) {
        fake_listener odd([&](fake_listener& through) {
            fake_tls tls(through, m_key.get(), {});
            frame request;
            if (!tls.next(request))
                return;
            if (!each.first) {
                tls.send(frame_type::login_first_answer, request.request,
                         plain_scram::server{"any"}.first(request.payload));
                if (!tls.next(request))
                    return;
            }
            tls.send(frame_type::refusal, request.request, each.payload);
            tls.next(request);
        });
        EXPECT_TRUE(login_fails(odd.port(), each.error)) << &each - all << last_error();
    }
}

} // namespace
