// Inside the module qor-openssl: the client's side of a login. Messages go in and come out; who has the connection
// moves them.
#pragma once

#include "support/primitives.h"

#include <array>
#include <string>
#include <string_view>

namespace qor::control {

// One login: first(), final() with what the server answers, verify() with its last word. The password is forgotten as
// soon as it has been used. Not thread-safe. Throws std::bad_alloc.
class scram_client {
public:
    // What tells the connection from every other one, for both of its ends: 32 bytes of TLS's exporter.
    using binding_data = std::array<uint8, 32>;

    // Name and password are taken as the bytes that they are.
    scram_client(std::string_view name, std::string_view password, const binding_data& binding);
    scram_client(const scram_client&) = delete;
    scram_client& operator=(const scram_client&) = delete;
    ~scram_client();

    // The client-first-message; empty: there is no randomness to be had, and the last error says so.
    std::string first();

    // The answer to a server-first-message. False: the message cannot be right, or wants fewer or more iterations than
    // is safe; nothing was computed of the password then, and nothing may be sent.
    bool final(std::string_view server_first, std::string& answer);

    // Whether a server-final-message proves that the server knows the account.
    bool verify(std::string_view server_final) const;

private:
    bool answer_with(const crypto::digest& salted_password, std::string_view server_first, std::string_view nonce,
                     std::string& answer);

    std::string m_name; // as messages have it
    std::string m_password;
    std::string m_binding;
    std::string m_nonce;
    crypto::digest m_expected{};
    bool m_has_answered = false;
};

} // namespace qor::control
