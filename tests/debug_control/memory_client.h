// A peer of a listener's session, built on OpenSSL directly: bytes are exchanged in memory, and the test controls the
// time.
#pragma once

#include "channel/debug_frames.h"
#include "channel/debug_session.h"
#include "plain_scram.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace qor::test {

using namespace std::chrono_literals;
using control::frame;
using control::frame_reader;
using control::frame_type;
using control::moment;

struct client_settings {
    int version = TLS1_3_VERSION;
    std::string protocols = "\x0bqor-debug/1"; // in the format of TLS
};

class memory_client {
public:
    explicit memory_client(const client_settings& settings = {})
        : m_context(SSL_CTX_new(TLS_client_method()), SSL_CTX_free) {
        SSL_CTX_set_max_proto_version(m_context.get(), settings.version);
        m_ssl.reset(SSL_new(m_context.get()));
        if (!settings.protocols.empty())
            SSL_set_alpn_protos(m_ssl.get(), reinterpret_cast<const unsigned char*>(settings.protocols.data()),
                                static_cast<unsigned>(settings.protocols.size()));
        SSL_set_bio(m_ssl.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
        SSL_set_connect_state(m_ssl.get());
        m_frames.set_limit(control::payload_limit);
        step();
    }

    // Moves pending bytes in both directions until there are no more.
    void exchange(control::session& with, moment now) {
        for (bool moved = true; moved;) {
            moved = false;
            if (std::string out = take(); !out.empty()) {
                wire += out;
                with.receive(out, now);
                moved = true;
            }
            if (!with.outgoing().empty()) {
                wire += with.outgoing();
                give(std::exchange(with.outgoing(), {}));
                moved = true;
            }
        }
    }

    std::string take() {
        char* bytes = nullptr;
        const long size = BIO_get_mem_data(SSL_get_wbio(m_ssl.get()), &bytes);
        std::string out(bytes, static_cast<std::size_t>(std::max(size, 0l)));
        (void)BIO_reset(SSL_get_wbio(m_ssl.get()));
        return out;
    }

    void give(const std::string& bytes) {
        BIO_write(SSL_get_rbio(m_ssl.get()), bytes.data(), static_cast<int>(bytes.size()));
        step();
    }

    void send(const std::string& bytes) {
        ASSERT_EQ(SSL_write(m_ssl.get(), bytes.data(), static_cast<int>(bytes.size())), static_cast<int>(bytes.size()));
    }

    void send(frame_type type, uint32 request, std::string_view payload) {
        std::string bytes;
        control::append_frame(bytes, type, request, payload);
        send(bytes);
    }

    // Returns the received frames except heartbeats.
    std::vector<frame> frames() {
        std::vector<frame> all;
        for (frame found; m_frames.next(found) == frame_reader::result::frame;)
            if (found.type == frame_type::heartbeat)
                ++heartbeats;
            else
                all.push_back(found);
        return all;
    }

    std::string binding() const {
        std::string out(32, '\0');
        EXPECT_EQ(SSL_export_keying_material(m_ssl.get(), reinterpret_cast<unsigned char*>(out.data()), 32,
                                             "EXPORTER-Channel-Binding", 24, nullptr, 0, 0),
                  1);
        return out;
    }

    bool is_open() const { return SSL_is_init_finished(m_ssl.get()) != 0; }
    SSL* ssl() const { return m_ssl.get(); }

    std::string wire;  // all bytes of the wire, both directions
    std::string plain; // all received bytes, decrypted
    unsigned heartbeats = 0;

private:
    void step() {
        char piece[4096];
        for (int size; (size = SSL_read(m_ssl.get(), piece, sizeof piece)) > 0;) {
            plain.append(piece, static_cast<std::size_t>(size));
            m_frames.add({piece, static_cast<std::size_t>(size)});
        }
        ERR_clear_error();
    }

    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> m_context;
    std::unique_ptr<SSL, decltype(&SSL_free)> m_ssl{nullptr, SSL_free};
    frame_reader m_frames;
};

} // namespace qor::test
