// Dishonest listeners, and the console's reaction to them.
#pragma once

#include "fake_listener.h"
#include "loopback.h"

#include <atomic>

namespace qor::test {

using control::frame;
using control::frame_type;
using control::key_pointer;

class impostors : public loopback_fixture {
protected:
    impostors() : m_key(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519")) {}

    // A listener that answers a login by itself, with the given server.
    fake_listener::conduct login_by(plain_scram::server how, fake_tls::settings settings = {}) {
        return [this, how, settings](fake_listener& through) {
            fake_tls tls(through, m_key.get(), settings);
            frame request;
            if (log_in(tls, how))
                tls.next(request);
        };
    }

    // Returns false if the console did not continue.
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

    // Behaves honestly until the login is done, then answers requests with the payload for their number, counted from
    // 0.
    fake_listener::conduct answers(frame_type type, std::function<std::string(uint32)> payload_of) {
        return [this, type, payload_of](fake_listener& through) {
            fake_tls tls(through, m_key.get(), {});
            frame request;
            uint32 number = 0;
            for (bool on = log_in(tls, {"secret"}); on && tls.next(request);)
                tls.send(type, request.request, payload_of(number++));
        };
    }

    // Expects that a login is refused for that reason, and that no other operation is possible afterwards.
    bool login_fails(uint16 at, uint32 number) {
        control_pointer control = make();
        qorStringArray out;
        return control->Connect("127.0.0.1", at) && !control->Login("ada", "secret") && error_number() == number &&
               !control->GetCodes(out);
    }

    bool connect_fails(uint16 at, uint32 number) {
        return !make()->Connect("127.0.0.1", at) && error_number() == number;
    }

    key_pointer m_key;
    std::atomic<int> m_logins = 0; // logins that were begun
    std::atomic<int> m_proofs = 0; // proofs that clients sent
};

} // namespace qor::test
