#include "sockets.h"

#include <algorithm>
#include <cstring>

namespace {

// The prefix of an IPv4-mapped IPv6 address, which counts as an IPv4 address.
constexpr unsigned char mapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

bool is_mapped(const qor::sockets::endpoint& address) noexcept {
    return std::equal(mapped, mapped + sizeof mapped, address.bytes + qor::sockets::endpoint::ipv6_at);
}

} // namespace

// Relies on a memory layout that all supported systems share (sockets_posix.cpp and sockets_windows.cpp check it): the
// family, the port, then an IPv4 address, or, four bytes later, an IPv6 address.
qor::sockets::endpoint::endpoint(const void* address, std::size_t length) noexcept
    : size(static_cast<unsigned>(std::min(length, sizeof bytes))) {
    std::memcpy(bytes, address, size);
}

uint16 qor::sockets::endpoint::port() const noexcept {
    return static_cast<uint16>(bytes[port_at] << 8 | bytes[port_at + 1]);
}

void qor::sockets::endpoint::set_port(uint16 port) noexcept {
    bytes[port_at] = static_cast<unsigned char>(port >> 8);
    bytes[port_at + 1] = static_cast<unsigned char>(port);
}

std::string qor::sockets::endpoint::text() const { return host() + " port " + std::to_string(port()); }

std::string qor::sockets::endpoint::neighbour() const {
    const auto text_of = [this](std::size_t at, std::size_t count) {
        return std::string(reinterpret_cast<const char*>(bytes) + at, count);
    };
    if (!is_ipv6())
        return text_of(ipv4_at, 4);
    return is_mapped(*this) ? text_of(ipv6_at + sizeof mapped, 4) : text_of(ipv6_at, 8);
}

// 127.0.0.0/8 and ::1.
bool qor::sockets::endpoint::is_loopback() const noexcept {
    if (!is_ipv6())
        return bytes[ipv4_at] == 127;
    if (is_mapped(*this))
        return bytes[ipv6_at + sizeof mapped] == 127;
    constexpr unsigned char loopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    return std::equal(loopback, loopback + sizeof loopback, bytes + ipv6_at);
}

void qor::sockets::waker::wake() noexcept {
    std::size_t count;
    (void)send(m_sender.is_open() ? m_sender : m_receiver, "", 1, &count);
}

void qor::sockets::waker::take() noexcept {
    char bytes[16];
    for (std::size_t count = 1; count != 0 && receive(m_receiver, bytes, sizeof bytes, &count) == 0;)
        ;
}
