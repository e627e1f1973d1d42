// Inside the module qor-openssl: the client's side of a login. It takes and returns messages; the caller has the
// connection.
#pragma once

#include "support/primitives.h"

#include <array>
#include <string>
#include <string_view>

namespace qor::control {

// A single login: call first(), then final() with the server's answer, then verify() with its last message. Wipes the
// password as soon as it has been used. Not thread-safe. Throws std::bad_alloc.
class scram_client {
public:
    // A value that identifies the connection among all others, the same at both ends: 32 bytes from TLS's exporter.
    using binding_data = std::array<uint8, 32>;

    // Name and password are used byte by byte, without normalization.
    scram_client(std::string_view name, std::string_view password, const binding_data& binding);
    scram_client(const scram_client&) = delete;
    scram_client& operator=(const scram_client&) = delete;
    ~scram_client();

    // Returns the client-first-message; empty if no random bytes are available, and then the last error gives the
    // reason.
    std::string first();

    // Answers a server-first-message. Returns false if the message is invalid or its number of iterations is outside
    // the safe range. Nothing has been computed from the password then; do not send anything.
    bool final(std::string_view server_first, std::string& answer);

    // Whether a server-final-message proves that the server knows the account.
    bool verify(std::string_view server_final) const;

private:
    bool answer_with(const crypto::digest& salted_password, std::string_view server_first, std::string_view nonce,
                     std::string& answer);

    std::string m_name; // escaped for messages
    std::string m_password;
    std::string m_binding;
    std::string m_nonce;
    crypto::digest m_expected{};
    bool m_has_answered = false;
};

} // namespace qor::control
