// Inside the module qor-openssl: the server's side of a login. Messages go in and come out; who has the connection
// moves them.
#pragma once

#include "accounts.h"
#include "password/verifier.h"

#include <array>
#include <string>
#include <string_view>

namespace qor::control {

// One login: first(), then final(). Not thread-safe. Throws std::bad_alloc.
class scram_server {
public:
    enum class verdict {
        accepted,
        refused,   // whatever was wrong: the peer must not learn more
        malformed, // no message of a client that follows the rules
    };

    // `binding` is what TLS's exporter gives for this connection.
    scram_server(accounts& users, const std::array<uint8, 32>& binding);

    // The answer to a client-first-message. False: it is malformed, wants what is not spoken here, or there is no
    // randomness to be had. A user that does not exist is asked for a password all the same.
    bool first(std::string_view client_first, std::string& answer);

    // The answer to a client-final-message, where it is accepted.
    verdict final(std::string_view client_final, std::string& answer);

    // Whom the client wants to log in; bytes of its choice.
    const std::string& user() const noexcept { return m_user; }

private:
    std::string m_user;
    std::string m_binding;
    std::string m_messages; // those of the login so far, each with a comma behind it
    std::string m_nonce;
    crypto::verifier m_verifier;
    bool m_is_known = false;
    accounts& m_users;
};

} // namespace qor::control
