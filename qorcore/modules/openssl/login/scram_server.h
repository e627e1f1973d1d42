// Inside the module qor-openssl: the server's side of a login. It takes and returns messages; the caller has the
// connection.
#pragma once

#include "accounts.h"
#include "password/verifier.h"

#include <array>
#include <string>
#include <string_view>

namespace qor::control {

// A single login: call first(), then final(). Not thread-safe. Throws std::bad_alloc.
class scram_server {
public:
    enum class verdict {
        accepted,
        refused,   // for any reason; the peer must not learn more
        malformed, // not a valid client message
    };

    // `binding` is the value of TLS's exporter for this connection.
    scram_server(accounts& users, const std::array<uint8, 32>& binding);

    // Answers a client-first-message. Returns false if the message is malformed or asks for an unsupported feature, or
    // if there are no random bytes. An unknown user is asked for a password like any other.
    bool first(std::string_view client_first, std::string& answer);

    // Checks a client-final-message; if it is accepted, `answer` is the reply.
    verdict final(std::string_view client_final, std::string& answer);

    // The user that the client wants to log in. The client may choose any bytes.
    const std::string& user() const noexcept { return m_user; }

private:
    std::string m_user;
    std::string m_binding;
    std::string m_messages; // the messages of the login so far, each followed by a comma
    std::string m_nonce;
    crypto::verifier m_verifier;
    bool m_is_known = false;
    accounts& m_users;
};

} // namespace qor::control
