// Peers that are always refused: each a hundred times out of a hundred.
#include "impostor_fixture.h"
#include "session_fixture.h"

#include <functional>

namespace {

using namespace qor::test;

using one_try = std::function<bool(int number)>; // true: refused

void expect_refused(const std::string& whom, const one_try& is_refused) {
    constexpr int times = 100;
    int refused = 0;
    for (int i = 0; i < times; ++i)
        refused += is_refused(i);
    std::printf("%s: refused %d of %d\n", whom.c_str(), refused, times);
    EXPECT_EQ(refused, times) << whom << ": " << last_error();
}

// ---- by a listener: peers in memory

class refused_by_listener : public sessions {
protected:
    one_try handshake(const client_settings& settings) {
        return [this, settings](int) {
            memory_client peer(settings);
            auto of = connect();
            peer.exchange(*of, m_now);
            return of->is_over() && peer.plain.empty();
        };
    }

    one_try login(const std::string& gs2) {
        return [this, gs2](int) {
            memory_client peer;
            auto of = connect();
            peer.exchange(*of, m_now);
            plain_scram::client ada = m_ada;
            ada.gs2 = gs2;
            ada.binding = peer.binding();
            peer.send(frame_type::login_first, 1, ada.first());
            peer.exchange(*of, m_now);
            return of->is_over() && peer.frames().empty();
        };
    }
};

TEST_F(refused_by_listener, all_of_them) {
    expect_refused("TLS 1.2, by a listener", handshake({TLS1_2_VERSION, "\x0bqor-debug/1"}));
    expect_refused("no ALPN, by a listener", handshake({TLS1_3_VERSION, ""}));
    expect_refused("ALPN of http/1.1, by a listener", handshake({TLS1_3_VERSION, "\x08http/1.1"}));
    expect_refused("ALPN of qor-debug/2, by a listener", handshake({TLS1_3_VERSION, "\x0bqor-debug/2"}));
    expect_refused("an HTTP client", [this](int) {
        auto of = connect();
        of->receive("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n", m_now);
        return of->is_over();
    });
    for (const char* const gs2 : {"n,,", "y,,", "p=tls-unique,,", "p=tls-server-end-point,,", "p=tls-exporter,a=bob,"})
        expect_refused("plain SCRAM, or with another header, '" + std::string(gs2) + "'", login(gs2));
}

// A relay that ends TLS on both sides has two connections, each with its own channel binding.
TEST_F(refused_by_listener, a_relay) {
    expect_refused("a relay", [this](int number) {
        memory_client victim_side;
        auto impostor = connect("relay");
        victim_side.exchange(*impostor, m_now);
        plain_scram::client ada = m_ada;
        ada.binding = victim_side.binding();
        memory_client relay;
        auto of = connect(std::to_string(number));
        relay.exchange(*of, m_now);
        relay.send(frame_type::login_final, 2, ada.final(begin(*of, relay, ada)));
        relay.exchange(*of, m_now);
        pass(*of, 250ms, &relay);
        const std::vector<frame> answers = relay.frames();
        m_now += 4s; // after 20 guesses at an account in a minute, answers would be delayed
        return answers.size() == 1 && answers[0].type == frame_type::refusal;
    });
}

// ---- by a console: listeners over the loopback network

class refused_by_console : public impostors {};

TEST_F(refused_by_console, one_that_does_not_know_the_password) {
    fake_listener impostor(login_by({"guess"}));
    expect_refused("an impostor", [&](int) { return login_fails(impostor.port(), qorError_debug_server_not_proved); });
    EXPECT_FALSE(std::filesystem::exists(folder() / "known-hosts"));
}

// Few iterations make the password cheap to guess from the proof; many keep the console busy. Neither gets a proof.
TEST_F(refused_by_console, iterations_out_of_bounds) {
    for (const char* const iterations :
         {"1", "1000000000", "4095", "2000001", "99999999999999999999", "0", "-1", "4096x", ""}) {
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
        expect_refused("'" + std::string(iterations) + "' iterations",
                       [&](int) { return login_fails(impostor.port(), qorError_debug_protocol); });
    }
    EXPECT_EQ(m_proofs, 0);
}

TEST_F(refused_by_console, other_versions_and_protocols) {
    const std::pair<const char*, fake_tls::settings> wrong[] = {
        {"TLS 1.2, by a console", {TLS1_2_VERSION, "qor-debug/1"}},
        {"no ALPN, by a console", {TLS1_3_VERSION, ""}},
        {"ALPN of http/1.1, by a console", {TLS1_3_VERSION, "http/1.1"}}};
    for (const auto& [what, settings] : wrong) {
        fake_listener other(login_by({"secret"}, settings));
        expect_refused(what, [&](int) { return connect_fails(other.port(), qorError_debug_not_ours); });
    }
    fake_listener web([](fake_listener& through) {
        through.read();
        through.write("HTTP/1.1 400 Bad Request\r\nConnection: close\r\n\r\n");
    });
    expect_refused("an HTTP server", [&](int) { return connect_fails(web.port(), qorError_debug_not_ours); });
    fake_listener busy([](fake_listener&) {});
    expect_refused("one that hangs up", [&](int) { return connect_fails(busy.port(), qorError_debug_busy); });
    EXPECT_EQ(m_logins, 0);
}

// The real listener, with a key that differs from the known one.
TEST_F(refused_by_console, a_changed_key) {
    private_file(folder(), "known-hosts",
                 "127.0.0.1 " + std::to_string(port()) + " sha256 " + std::string(64, 'a') + "\n");
    expect_refused("a changed key", [&](int) { return connect_fails(port(), qorError_debug_key_changed); });
}

} // namespace
