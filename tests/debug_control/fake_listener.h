// A listener that need not follow the protocol: the test decides each step. It has one thread and serves one connection
// at a time.
#pragma once

#include "channel/debug_frames.h"
#include "channel/sockets.h"
#include "channel/tls_channel.h"
#include "plain_scram.h"

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <functional>
#include <string>
#include <thread>

namespace qor::test {

class fake_listener {
public:
    // The listener's behaviour on an established connection, where read() and write() exchange bytes.
    using conduct = std::function<void(fake_listener&)>;

    explicit fake_listener(conduct act) : m_act(std::move(act)) {
        std::vector<sockets::endpoint> places;
        std::string reason;
        EXPECT_EQ(sockets::resolve("127.0.0.1", 0, true, places, reason), 0) << reason;
        EXPECT_EQ(sockets::listen_at(places.at(0), m_listener), 0);
        m_port = sockets::local_end(m_listener).port();
        m_thread = std::thread([this] { run(); });
    }
    fake_listener(const fake_listener&) = delete;
    fake_listener& operator=(const fake_listener&) = delete;
    ~fake_listener() {
        m_waker.wake();
        m_thread.join();
    }

    uint16 port() const { return m_port; }

    // For a conduct that also waits for something else: it returns when the receiver of end() is ready.
    const sockets::socket& connection() const { return m_connection; }
    const sockets::socket& end() const { return m_waker.receiver(); }

    // Returns the next bytes of the peer; empty if the peer has gone.
    std::string read() {
        for (;;) {
            sockets::watched watched[] = {{&m_waker.receiver(), true, false}, {&m_connection, true, false}};
            sockets::wait(watched, -1);
            if (watched[0].ready)
                return {};
            char bytes[4096];
            std::size_t count;
            if (const int failed = sockets::receive(m_connection, bytes, sizeof bytes, &count);
                failed != sockets::would_block)
                return {bytes, failed == 0 ? count : 0};
        }
    }

    void write(const std::string& bytes) {
        std::size_t count;
        EXPECT_EQ(sockets::send(m_connection, bytes.data(), bytes.size(), &count), 0);
        EXPECT_EQ(count, bytes.size());
    }

private:
    void run() {
        for (;;) {
            sockets::watched watched[] = {{&m_waker.receiver(), true, false}, {&m_listener, true, false}};
            sockets::wait(watched, -1);
            if (watched[0].ready)
                return;
            sockets::endpoint from;
            if (sockets::accept_from(m_listener, m_connection, from) == 0)
                m_act(*this);
            m_connection = {};
        }
    }

    conduct m_act;
    sockets::socket m_listener;
    sockets::socket m_connection;
    sockets::waker m_waker;
    uint16 m_port = 0;
    std::thread m_thread;
};

// The same with a TLS session of its own, and frames.
class fake_tls {
public:
    struct settings {
        int version = TLS1_3_VERSION;
        std::string protocol = control::protocol_name; // empty: it offers no protocol
    };

    fake_tls(fake_listener& through, EVP_PKEY* key, const settings& wanted)
        : m_through(through), m_context(control::make_server_context(key)), m_wanted(wanted) {
        SSL_CTX_set_min_proto_version(m_context.get(), TLS1_2_VERSION);
        SSL_CTX_set_max_proto_version(m_context.get(), wanted.version);
        SSL_CTX_set_alpn_select_cb(m_context.get(), choose, this);
        m_ssl.reset(SSL_new(m_context.get()));
        SSL_set_bio(m_ssl.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
        SSL_set_accept_state(m_ssl.get());
        m_frames.set_limit(control::payload_limit);
    }

    // Returns the peer's next frame that is not a heartbeat. False: the peer has gone.
    bool next(control::frame& out) {
        for (;;) {
            while (m_frames.next(out) == control::frame_reader::result::frame)
                if (out.type != control::frame_type::heartbeat)
                    return true;
            const std::string wire = m_through.read();
            if (wire.empty())
                return false;
            BIO_write(SSL_get_rbio(m_ssl.get()), wire.data(), static_cast<int>(wire.size()));
            char piece[4096];
            for (int size; (size = SSL_read(m_ssl.get(), piece, sizeof piece)) > 0;)
                take({piece, static_cast<std::size_t>(size)});
            flush();
        }
    }

    void send(control::frame_type type, uint32 request, const std::string& payload) {
        std::string bytes;
        control::append_frame(bytes, type, request, payload);
        send(bytes);
    }

    // Sends the bytes as one record.
    void send(const std::string& bytes) {
        SSL_write(m_ssl.get(), bytes.data(), static_cast<int>(bytes.size()));
        flush();
    }

    std::string plain; // all decrypted input

private:
    void take(std::string_view deciphered) {
        plain += deciphered;
        m_frames.add(deciphered);
    }

    static int choose(SSL*, const unsigned char** out, unsigned char* size, const unsigned char*, unsigned,
                      void* self) {
        const std::string& protocol = static_cast<fake_tls*>(self)->m_wanted.protocol;
        *out = reinterpret_cast<const unsigned char*>(protocol.data());
        *size = static_cast<unsigned char>(protocol.size());
        return protocol.empty() ? SSL_TLSEXT_ERR_NOACK : SSL_TLSEXT_ERR_OK;
    }

    void flush() {
        char* bytes = nullptr;
        const long size = BIO_get_mem_data(SSL_get_wbio(m_ssl.get()), &bytes);
        if (size > 0)
            m_through.write({bytes, static_cast<std::size_t>(size)});
        (void)BIO_reset(SSL_get_wbio(m_ssl.get()));
    }

    fake_listener& m_through;
    control::tls_context m_context;
    settings m_wanted;
    std::unique_ptr<SSL, control::openssl_freer> m_ssl;
    control::frame_reader m_frames;
};

} // namespace qor::test
