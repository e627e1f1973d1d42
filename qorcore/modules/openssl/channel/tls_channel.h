// Inside the module qor-openssl: TLS without sockets. The caller passes in bytes from the wire, and sends the bytes
// that come out.
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

// Makes a context with TLS 1.3 and the protocol's name; no tickets, no resumption, no early data. Null on failure; the
// last error gives the reason.
tls_context make_client_context() noexcept;

// Like the above, with a certificate that the key signs itself.
tls_context make_server_context(EVP_PKEY* key) noexcept;

// A TLS connection. Not thread-safe. Throws std::bad_alloc.
class tls_channel {
public:
    enum class side { client, server };
    enum class state {
        handshake,
        open,
        ended,  // the peer has announced the end of its data
        failed, // reason() has the text; a last message for the peer may be in outgoing()
    };

    static constexpr std::size_t longest_record = 16384; // the longest record that TLS allows
    static constexpr int longest_hello = 4096;

    tls_channel(SSL_CTX* context, side which);

    // Processes bytes from the wire and appends the decrypted content to `plain`.
    void receive(std::string_view wire, std::string& plain);

    void send(std::string_view plain);

    // Limits the content of the peer's records, because a record is buffered until it is complete. A longer record
    // makes the channel fail.
    void set_record_limit(std::size_t contents) noexcept { m_record_limit = contents; }

    // Tells the peer that no more data follows.
    void end();

    // The bytes to send; the caller removes the bytes it has sent.
    std::string& outgoing() noexcept { return m_outgoing; }

    state now() const noexcept { return m_state; }
    const std::string& reason() const noexcept { return m_reason; }

    // Whether an incomplete TLS record has arrived.
    bool is_within() const noexcept { return !m_partial.empty(); }

    // Whether both sides agreed on the protocol; call this only for an open channel.
    bool speaks_protocol() const noexcept;

    // A value that identifies this connection among all others, the same at both ends (RFC 9266).
    std::array<uint8, 32> binding() const;

    key_fingerprint peer_key() const;

private:
    enum class awaited { hello, last_message, anything }; // the first two occur only in a server's handshake

    void answer_hello();
    void advance(std::string& plain);
    void fail(std::string reason);
    void drain();

    std::unique_ptr<SSL, openssl_freer> m_ssl;
    state m_state = state::handshake;
    awaited m_awaited;
    std::string m_outgoing;
    std::string m_reason;
    std::string m_partial; // the incomplete record
    std::size_t m_record_limit = longest_record;
};

} // namespace qor::control
