#include "tls_channel.h"

#include "debug_frames.h"
#include "qor/qor.h"

#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace {

using qor::control::key_fingerprint;
using qor::control::protocol_name;

// The protocol's name in the form of a TLS list: its length, then the name.
constexpr unsigned char offered[] = "\x0bqor-debug/1";
static_assert(sizeof offered - 2 == 0x0b && sizeof protocol_name - 1 == 0x0b);

constexpr char binding_label[] = "EXPORTER-Channel-Binding";

std::bad_alloc no_memory() noexcept { return {}; }

SSL_CTX* failed(const char* operation) noexcept {
    qor::crypto::failed(operation);
    return nullptr;
}

int choose_protocol(SSL*, const unsigned char** out, unsigned char* out_size, const unsigned char* list, unsigned size,
                    void*) noexcept {
    unsigned char* chosen = nullptr;
    if (SSL_select_next_proto(&chosen, out_size, offered, sizeof offered - 1, list, size) != OPENSSL_NPN_NEGOTIATED)
        return SSL_TLSEXT_ERR_ALERT_FATAL;
    *out = chosen;
    return SSL_TLSEXT_ERR_OK;
}

constexpr std::size_t header_size = 5;
constexpr std::size_t wrapping = 256; // the largest overhead of a record over its content
// Returns the size of the record at the front; 0 if it is not known yet. Data that is not a TLS record is passed to
// OpenSSL, which rejects it.
std::size_t record_size(std::string_view bytes) noexcept {
    if (bytes.size() < header_size)
        return 0;
    const auto at = [bytes](std::size_t index) { return static_cast<uint8>(bytes[index]); };
    if (at(0) < 20 || at(0) > 23 || at(1) != 3)
        return bytes.size();
    return header_size + static_cast<std::size_t>(at(3) << 8 | at(4));
}

// OpenSSL allocates the size that a handshake message claims as soon as its first bytes arrive. Our clients need no
// more than one record for such a message, so reject larger ones.
bool is_modest(std::string_view record) noexcept {
    constexpr char handshake = 22;
    if (record[0] != handshake)
        return true;
    return record.size() >= header_size + 4 &&
           (static_cast<uint8>(record[6]) << 16 | static_cast<uint8>(record[7]) << 8 | static_cast<uint8>(record[8])) <=
               qor::control::tls_channel::longest_hello;
}

// OpenSSL clients send this meaningless record before their last message: RFC 8446, D.4.
bool is_meaningless(std::string_view record) noexcept { return record == std::string_view("\x14\3\3\0\1\1", 6); }

// Frees the buffer of processed bytes, so that an idle connection holds no buffers.
void release(BIO* memory) {
    BUF_MEM* const fresh = BUF_MEM_new();
    if (fresh == nullptr)
        throw no_memory();
    BIO_set_mem_buf(memory, fresh, BIO_CLOSE);
}

// No authority certifies a server; the fingerprint of its key and the login prove its identity.
int take_any_certificate(X509_STORE_CTX*, void*) noexcept { return 1; }

bool set_common(SSL_CTX* context) noexcept {
    SSL_CTX_set_options(context, SSL_OP_NO_TICKET | SSL_OP_NO_COMPRESSION);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS);
    // No handshake of ours is larger.
    SSL_CTX_set_max_cert_list(context, 8192);
    return SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION) == 1 &&
           SSL_CTX_set_max_proto_version(context, TLS1_3_VERSION) == 1 && SSL_CTX_set_num_tickets(context, 0) == 1 &&
           SSL_CTX_set_max_early_data(context, 0) == 1;
}

// Only the key in the certificate matters, but some clients require the other fields.
std::unique_ptr<X509, qor::control::openssl_freer> make_certificate(EVP_PKEY* key) noexcept {
    std::unique_ptr<X509, qor::control::openssl_freer> made(X509_new());
    uint64 serial = 0;
    X509_NAME* const name = made != nullptr ? X509_get_subject_name(made.get()) : nullptr;
    // Keys on Edwards curves have a built-in digest.
    const bool own_digest = EVP_PKEY_is_a(key, "ED25519") == 1 || EVP_PKEY_is_a(key, "ED448") == 1;
    if (name == nullptr || RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) != 1 ||
        X509_set_version(made.get(), X509_VERSION_3) != 1 ||
        ASN1_INTEGER_set_uint64(X509_get_serialNumber(made.get()), serial >> 1) != 1 ||
        ASN1_TIME_set_string(X509_getm_notBefore(made.get()), "20000101000000Z") != 1 ||
        ASN1_TIME_set_string(X509_getm_notAfter(made.get()), "99991231235959Z") != 1 ||
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>("qor debug control"), -1, -1, 0) != 1 ||
        X509_set_issuer_name(made.get(), name) != 1 || X509_set_pubkey(made.get(), key) != 1 ||
        X509_sign(made.get(), key, own_digest ? nullptr : EVP_sha256()) == 0)
        return nullptr;
    return made;
}

} // namespace

qor::control::tls_context qor::control::make_client_context() noexcept {
    tls_context made(SSL_CTX_new(TLS_client_method()));
    if (made == nullptr || !set_common(made.get()) ||
        SSL_CTX_set_alpn_protos(made.get(), offered, sizeof offered - 1) != 0)
        return tls_context(failed("SSL_CTX_new"));
    SSL_CTX_set_cert_verify_callback(made.get(), take_any_certificate, nullptr);
    SSL_CTX_set_verify(made.get(), SSL_VERIFY_PEER, nullptr);
    return made;
}

qor::control::tls_context qor::control::make_server_context(EVP_PKEY* key) noexcept {
    tls_context made(SSL_CTX_new(TLS_server_method()));
    if (made == nullptr || !set_common(made.get()))
        return tls_context(failed("SSL_CTX_new"));
    const auto certificate = make_certificate(key);
    if (certificate == nullptr || SSL_CTX_use_certificate(made.get(), certificate.get()) != 1 ||
        SSL_CTX_use_PrivateKey(made.get(), key) != 1)
        return tls_context(failed("X509_sign"));
    SSL_CTX_set_alpn_select_cb(made.get(), choose_protocol, nullptr);
    return made;
}

qor::control::tls_channel::tls_channel(SSL_CTX* context, side which)
    : m_ssl(SSL_new(context)), m_awaited(which == side::server ? awaited::hello : awaited::anything) {
    BIO* const in = BIO_new(BIO_s_mem());
    BIO* const out = BIO_new(BIO_s_mem());
    if (m_ssl == nullptr || in == nullptr || out == nullptr) {
        BIO_free(in);
        BIO_free(out);
        throw no_memory();
    }
    SSL_set_bio(m_ssl.get(), in, out);
    if (which == side::server) {
        SSL_set_accept_state(m_ssl.get());
        return;
    }
    SSL_set_connect_state(m_ssl.get());
    std::string nothing;
    advance(nothing);
}

void qor::control::tls_channel::receive(std::string_view wire, std::string& plain) {
    if (m_state != state::handshake && m_state != state::open)
        return;
    // OpenSSL would allocate large buffers for an incomplete record, and does not always report that a record is
    // incomplete. So only complete records are passed on.
    m_partial += wire;
    std::string_view rest = m_partial;
    std::size_t size;
    bool is_news = false;
    for (; (size = record_size(rest)) != 0; rest.remove_prefix(size)) {
        if (size > header_size + m_record_limit + wrapping)
            return fail("a record is too long");
        if (size > rest.size())
            break;
        if (!is_modest(rest.substr(0, size)))
            return fail("a message of the handshake is too long");
        if (m_awaited == awaited::last_message && is_meaningless(rest.substr(0, size)))
            continue;
        is_news = true;
        if (BIO_write(SSL_get_rbio(m_ssl.get()), rest.data(), static_cast<int>(size)) != static_cast<int>(size))
            throw no_memory();
    }
    // Reserve only the size of the incomplete record; growing the existing string could double its capacity.
    std::string begun;
    begun.reserve(size);
    begun = rest;
    m_partial.swap(begun);
    if (is_news)
        advance(plain);
}

// OpenSSL would keep buffers of 30 KiB until the handshake ends, which a client may delay. A server that asks for early
// data gets control back after its answer is written, and OpenSSL frees these buffers there. Early data itself would
// need a ticket, and nobody has one. OpenSSL allocates the buffers again for the client's next message, so that must be
// the last one and must arrive complete.
void qor::control::tls_channel::answer_hello() {
    char nothing;
    std::size_t length = 0;
    m_awaited = awaited::last_message;
    if (SSL_read_early_data(m_ssl.get(), &nothing, sizeof nothing, &length) == SSL_READ_EARLY_DATA_FINISH) {
        // If the client would have to send another hello, no key has been agreed on yet.
        EVP_PKEY* of_client = nullptr;
        if (SSL_get_peer_tmp_key(m_ssl.get(), &of_client) != 1)
            return fail("the hello brings no key for a curve that is known here");
        EVP_PKEY_free(of_client);
    } else if (SSL_get_error(m_ssl.get(), 0) == SSL_ERROR_WANT_READ)
        return fail("the hello is in pieces");
    else
        fail(openssl_reason());
    drain();
}

void qor::control::tls_channel::advance(std::string& plain) {
    ERR_clear_error();
    if (m_awaited == awaited::hello) {
        answer_hello();
        if (m_state == state::failed || BIO_pending(SSL_get_rbio(m_ssl.get())) == 0)
            return release(SSL_get_rbio(m_ssl.get()));
    }
    int result = 1;
    if (m_state == state::handshake) {
        result = SSL_do_handshake(m_ssl.get());
        if (result == 1) {
            m_state = state::open;
            m_awaited = awaited::anything;
            // OpenSSL allocates a write buffer for the last message of the handshake and keeps it until the first
            // write, which may be much later.
            SSL_free_buffers(m_ssl.get());
        } else if (m_awaited == awaited::last_message && SSL_get_error(m_ssl.get(), result) == SSL_ERROR_WANT_READ)
            return fail("the last message of the handshake is in pieces");
    }
    char piece[4096];
    while (result > 0 && m_state == state::open) {
        result = SSL_read(m_ssl.get(), piece, sizeof piece);
        if (result > 0)
            plain.append(piece, static_cast<std::size_t>(result));
    }
    if (result <= 0) {
        const int why = SSL_get_error(m_ssl.get(), result);
        if (why == SSL_ERROR_ZERO_RETURN)
            m_state = state::ended;
        else if (why != SSL_ERROR_WANT_READ)
            fail(openssl_reason());
    }
    if (BIO_pending(SSL_get_rbio(m_ssl.get())) == 0)
        release(SSL_get_rbio(m_ssl.get()));
    drain();
}

void qor::control::tls_channel::send(std::string_view plain) {
    if (m_state != state::open || plain.empty())
        return;
    ERR_clear_error();
    if (SSL_write(m_ssl.get(), plain.data(), static_cast<int>(plain.size())) <= 0)
        fail(openssl_reason());
    drain();
}

void qor::control::tls_channel::end() {
    if (m_state != state::open)
        return;
    SSL_shutdown(m_ssl.get());
    ERR_clear_error();
    drain();
}

void qor::control::tls_channel::fail(std::string reason) {
    m_reason = std::move(reason);
    m_state = state::failed;
}

void qor::control::tls_channel::drain() {
    BIO* const out = SSL_get_wbio(m_ssl.get());
    char* bytes = nullptr;
    if (const long size = BIO_get_mem_data(out, &bytes); size > 0) {
        // Copy the unread output into a string of its exact size; a growing string would reserve more.
        std::string all;
        all.reserve(m_outgoing.size() + static_cast<std::size_t>(size));
        all.append(m_outgoing).append(bytes, static_cast<std::size_t>(size));
        m_outgoing.swap(all);
        release(out);
    }
}

bool qor::control::tls_channel::speaks_protocol() const noexcept {
    const unsigned char* name = nullptr;
    unsigned size = 0;
    SSL_get0_alpn_selected(m_ssl.get(), &name, &size);
    return SSL_version(m_ssl.get()) == TLS1_3_VERSION && size == sizeof protocol_name - 1 &&
           std::memcmp(name, protocol_name, size) == 0;
}

std::array<uint8, 32> qor::control::tls_channel::binding() const {
    std::array<uint8, 32> value;
    if (SSL_export_keying_material(m_ssl.get(), value.data(), value.size(), binding_label, sizeof binding_label - 1,
                                   nullptr, 0, 1) != 1)
        throw no_memory();
    return value;
}

qor::control::key_fingerprint qor::control::tls_channel::peer_key() const {
    X509* const certificate = SSL_get0_peer_certificate(m_ssl.get());
    EVP_PKEY* const key = certificate != nullptr ? X509_get0_pubkey(certificate) : nullptr;
    if (key == nullptr)
        throw no_memory();
    return fingerprint_of(key);
}
