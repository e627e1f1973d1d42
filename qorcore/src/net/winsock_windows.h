// Inside the Windows half of the library: the functions of the system's socket library, which is loaded on first use.
#pragma once

#include "qor/qor.h"

#include <winsock2.h>
// Must follow winsock2.h: windows.h would otherwise include the first version of the socket header.
#include "platform/system_library_windows.h"
#include <ws2tcpip.h>

#include <cstring>

namespace qor::net {

// Never unloaded, like every system library that we load.
struct winsock {
#define QOR_WINSOCK(function) decltype(::function)* function = nullptr;
#include "net/winsock_functions_windows.h"
#undef QOR_WINSOCK

    int failure = 0; // 0, or the reason why none of them can be used
};

const winsock& the_winsock() noexcept;

constexpr uint16 to_network_order(uint16 value) noexcept { return static_cast<uint16>(value << 8 | value >> 8); }
constexpr uint16 from_network_order(uint16 value) noexcept { return to_network_order(value); }

// An address in the system's form.
class socket_address {
public:
    socket_address() noexcept = default;
    // The family must be set.
    socket_address(const qorHostAddress& address, uint16 port) noexcept {
        if (address.family == qorAddressFamily::ipv4) {
            m_any.in.sin_family = AF_INET;
            m_any.in.sin_port = to_network_order(port);
            std::memcpy(&m_any.in.sin_addr, address.ipv4.bytes, sizeof address.ipv4.bytes);
            m_size = sizeof m_any.in;
        } else {
            m_any.in6.sin6_family = AF_INET6;
            m_any.in6.sin6_port = to_network_order(port);
            std::memcpy(&m_any.in6.sin6_addr, address.ipv6.bytes, sizeof address.ipv6.bytes);
            m_any.in6.sin6_scope_id = address.scope;
            m_size = sizeof m_any.in6;
        }
    }

    const sockaddr* get() const noexcept { return &m_any.general; }
    int size() const noexcept { return m_size; }

    // For calls that write an address.
    sockaddr* room() noexcept { return &m_any.general; }
    int* size_of_room() noexcept {
        m_size = sizeof m_any;
        return &m_size;
    }

    qorIPEndpoint endpoint() const noexcept {
        qorIPEndpoint out;
        if (m_any.general.sa_family == AF_INET) {
            out.address.family = qorAddressFamily::ipv4;
            std::memcpy(out.address.ipv4.bytes, &m_any.in.sin_addr, sizeof out.address.ipv4.bytes);
            out.port = from_network_order(m_any.in.sin_port);
        } else if (m_any.general.sa_family == AF_INET6) {
            out.address.family = qorAddressFamily::ipv6;
            std::memcpy(out.address.ipv6.bytes, &m_any.in6.sin6_addr, sizeof out.address.ipv6.bytes);
            out.address.scope = m_any.in6.sin6_scope_id;
            out.port = from_network_order(m_any.in6.sin6_port);
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
    int m_size = 0;
};

} // namespace qor::net
