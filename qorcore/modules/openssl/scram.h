// Inside the module qor-openssl: SCRAM-SHA-256-PLUS with the binding tls-exporter (RFC 5802, 7677, 9266). Messages come in and
// go out as texts; nothing here knows a connection.
#pragma once

#include "qor/system/Types.h"

#include <array>
#include <string>
#include <string_view>

namespace qor::control {

using scram_digest = std::array<uint8, 32>;

inline constexpr uint32 least_iterations = 4096;
inline constexpr uint32 most_iterations = 2'000'000;

// What is kept of a password: "SCRAM-SHA-256$<iterations>:<salt>$<StoredKey>:<ServerKey>".
struct scram_verifier {
    uint32 iterations = 0;
    std::string salt;
    scram_digest stored_key{};
    scram_digest server_key{};

    // False: it is none.
    bool read(std::string_view text);
};

// Where a server finds its users.
class scram_users {
public:
    // Gives a false verifier, always the same, for a user that does not exist, and returns false then.
    virtual bool find(const std::string& name, scram_verifier& out) = 0;

protected:
    ~scram_users() = default;
};

class scram_server {
public:
    enum class verdict { accepted, refused, malformed };

    scram_server(scram_users& users, const std::array<uint8, 32>& binding) : m_users(users), m_binding(binding) {}

    // The client's first message. False: it is malformed, or wants another kind of login.
    bool first(std::string_view message, std::string& answer);

    // Its last one; `answer` is for one that is accepted.
    verdict final(std::string_view message, std::string& answer);

    const std::string& user() const noexcept { return m_user; }

private:
    scram_users& m_users;
    std::array<uint8, 32> m_binding;
    std::string m_user;
    bool m_known = false;
    scram_verifier m_verifier;
    std::string m_nonce;
    std::string m_so_far; // of the text that both sides sign
};

class scram_client {
public:
    scram_client(std::string user, std::string password, const std::array<uint8, 32>& binding);
    scram_client(const scram_client&) = delete;
    scram_client& operator=(const scram_client&) = delete;
    ~scram_client(); // wipes the password

    std::string first();

    // The answer to the server's first message. False: that is malformed, or the number of iterations is not one that
    // is safe; nothing was computed then.
    bool final(std::string_view message, std::string& answer);

    // Whether the server's last message proves that it knows the account.
    bool verify(std::string_view message) const;

private:
    std::string m_user;
    std::string m_password;
    std::array<uint8, 32> m_binding;
    std::string m_nonce;
    std::string m_bare;
    scram_digest m_expected{};
};

} // namespace qor::control
