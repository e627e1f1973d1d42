// Inside the library: addresses in the system's form. It is the same on both systems, but declared in different
// headers: socket_address_posix.h and winsock_windows.h include this one behind them.
#pragma once

#include "qor/qor.h"

#include <bit>
#include <cstring>

namespace qor::net {

// Not htons: on Windows, that is a function of a library which is loaded later.
constexpr uint16 network_order(uint16 value) noexcept {
    return std::endian::native == std::endian::big ? value : static_cast<uint16>(value << 8 | value >> 8);
}

class socket_address {
public:
    socket_address() noexcept = default;
    // The family must be set.
    socket_address(const qorHostAddress& address, uint16 port) noexcept {
        if (address.family == qorAddressFamily::ipv4) {
            m_any.in.sin_family = AF_INET;
            m_any.in.sin_port = network_order(port);
            std::memcpy(&m_any.in.sin_addr, address.ipv4.bytes, sizeof address.ipv4.bytes);
            m_size = sizeof m_any.in;
        } else {
            m_any.in6.sin6_family = AF_INET6;
            m_any.in6.sin6_port = network_order(port);
            std::memcpy(&m_any.in6.sin6_addr, address.ipv6.bytes, sizeof address.ipv6.bytes);
            m_any.in6.sin6_scope_id = address.scope;
            m_size = sizeof m_any.in6;
        }
    }

    const sockaddr* get() const noexcept { return &m_any.general; }
    socklen_t size() const noexcept { return m_size; }

    // For calls that write an address.
    sockaddr* room() noexcept { return &m_any.general; }
    socklen_t* size_of_room() noexcept {
        m_size = sizeof m_any;
        return &m_size;
    }

    qorIPEndpoint endpoint() const noexcept {
        qorIPEndpoint out;
        if (m_any.general.sa_family == AF_INET) {
            out.address.family = qorAddressFamily::ipv4;
            std::memcpy(out.address.ipv4.bytes, &m_any.in.sin_addr, sizeof out.address.ipv4.bytes);
            out.port = network_order(m_any.in.sin_port);
        } else if (m_any.general.sa_family == AF_INET6) {
            out.address.family = qorAddressFamily::ipv6;
            std::memcpy(out.address.ipv6.bytes, &m_any.in6.sin6_addr, sizeof out.address.ipv6.bytes);
            out.address.scope = m_any.in6.sin6_scope_id;
            out.port = network_order(m_any.in6.sin6_port);
        }
        return out;
    }

private:
    union {
        sockaddr_storage storage{};
        sockaddr general;
        sockaddr_in in;
        sockaddr_in6 in6;
    } m_any;
    socklen_t m_size = 0;
};

} // namespace qor::net
