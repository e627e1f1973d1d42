// Inside the module qor-openssl: TLS without sockets. Bytes of the wire go in and come out; who owns the socket moves
// them.
#pragma once

#include "login/server_key.h"
#include "qor/system/Types.h"
#include "support/openssl_support.h"

#include <openssl/evp.h>
#include <openssl/ssl.h>

#include <array>
#include <memory>
#include <string>
#include <string_view>

namespace qor::control {

using crypto::key_pointer;
using crypto::openssl_freer;
using crypto::openssl_reason;
using tls_context = std::unique_ptr<SSL_CTX, openssl_freer>;

// Null: the last error says why. TLS 1.3 and the protocol's name, no tickets, no resumption, no early data.
tls_context make_client_context() noexcept;

// With a certificate that the key signs itself.
tls_context make_server_context(EVP_PKEY* key) noexcept;

// One connection. Not thread-safe. Throws std::bad_alloc.
class tls_channel {
public:
    enum class side { client, server };
    enum class state {
        handshake,
        open,
        ended,  // the peer said that nothing follows
        failed, // reason() says why; a last message to the peer may be waiting to be sent
    };

    static constexpr std::size_t longest_record = 16384; // as long as TLS has them
    static constexpr int longest_hello = 4096;

    tls_channel(SSL_CTX* context, side which);

    // Bytes from the wire; what they meant is added to `plain`.
    void receive(std::string_view wire, std::string& plain);

    void send(std::string_view plain);

    // A peer whose next record holds more has failed: what comes of a record is kept until it is whole.
    void set_record_limit(std::size_t contents) noexcept { m_record_limit = contents; }

    // Tells the peer that nothing follows.
    void end();

    // What is to be sent; the owner takes it out.
    std::string& outgoing() noexcept { return m_outgoing; }

    state now() const noexcept { return m_state; }
    const std::string& reason() const noexcept { return m_reason; }

    // Whether the peer has begun something, a record of TLS, that is not whole.
    bool is_within() const noexcept { return !m_partial.empty(); }

    // Whether both sides agreed on the protocol; for a channel that is open.
    bool speaks_protocol() const noexcept;

    // What tells this connection from every other one, for both of its ends (RFC 9266).
    std::array<uint8, 32> binding() const;

    key_fingerprint peer_key() const;

private:
    enum class awaited { hello, last_message, anything }; // the first two in a server's handshake

    void answer_hello();
    void advance(std::string& plain);
    void fail(std::string reason);
    void drain();

    std::unique_ptr<SSL, openssl_freer> m_ssl;
    state m_state = state::handshake;
    awaited m_awaited;
    std::string m_outgoing;
    std::string m_reason;
    std::string m_partial; // of a record
    std::size_t m_record_limit = longest_record;
};

} // namespace qor::control
