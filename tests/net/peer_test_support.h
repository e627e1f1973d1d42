// The other end of a connection: a plain socket of the system that blocks, for tests of listeners.
#pragma once

#include "qor/qor.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace qor::test {

class peer {
public:
    // Connects to a port of this host, from its usual address or from another one of 127.0.0.0/8.
    explicit peer(uint16 port, qorAddressFamily family = qorAddressFamily::ipv4, const char* from = nullptr);
    peer(peer&& other) noexcept : m_socket(std::exchange(other.m_socket, -1)), m_is_reset(other.m_is_reset) {}
    peer& operator=(peer&& other) noexcept {
        std::swap(m_socket, other.m_socket);
        std::swap(m_is_reset, other.m_is_reset);
        return *this;
    }
    ~peer() { close(); }

    bool is_connected() const noexcept { return m_socket != -1; }
    // The port at this end.
    uint16 port() const noexcept;
    bool send(std::string_view bytes) noexcept;
    // As many bytes, or those up to the end or a reset, or after a minute.
    std::string receive(std::size_t count);
    // Waits for the end, orderly or by a reset. False after a minute, or if there is something to read.
    bool is_ended();
    void end_writing() noexcept;
    void close() noexcept;
    // Closes with a reset.
    void reset() noexcept;

private:
    std::intptr_t m_socket = -1;
    bool m_is_reset = false; // even before it knew that it was connected
};

// Closes a socket that a connection has given away.
void close_socket(int64 socket) noexcept;

} // namespace qor::test
