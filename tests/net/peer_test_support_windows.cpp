#include "net/peer_test_support.h"

#include <winsock2.h>
#include <ws2tcpip.h>

namespace {

SOCKET number_of(std::intptr_t socket) { return static_cast<SOCKET>(socket); }

} // namespace

qor::test::peer::peer(uint16 port, qorAddressFamily family, const char* from) {
    WSADATA data;
    (void)WSAStartup(MAKEWORD(2, 2), &data);
    const bool is_ipv4 = family == qorAddressFamily::ipv4;
    const SOCKET made = ::socket(is_ipv4 ? AF_INET : AF_INET6, SOCK_STREAM, IPPROTO_TCP);
    if (made == INVALID_SOCKET)
        return;
    const DWORD minute = 60'000;
    setsockopt(made, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&minute), sizeof minute);
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (from != nullptr) {
        sockaddr_in own = in;
        inet_pton(AF_INET, from, &own.sin_addr);
        bind(made, reinterpret_cast<const sockaddr*>(&own), sizeof own);
    }
    in.sin_port = htons(port);
    sockaddr_in6 in6{};
    in6.sin6_family = AF_INET6;
    in6.sin6_addr.s6_addr[15] = 1;
    in6.sin6_port = htons(port);
    const int failed = is_ipv4 ? connect(made, reinterpret_cast<const sockaddr*>(&in), sizeof in)
                               : connect(made, reinterpret_cast<const sockaddr*>(&in6), sizeof in6);
    m_is_reset = failed != 0; // for which Wine has several codes
    if (failed == 0)
        m_socket = static_cast<std::intptr_t>(made);
    else
        closesocket(made);
}

uint16 qor::test::peer::port() const noexcept {
    sockaddr_in6 own{};
    int size = sizeof own;
    getsockname(number_of(m_socket), reinterpret_cast<sockaddr*>(&own), &size);
    return ntohs(own.sin6_port); // at the same place in both families
}

bool qor::test::peer::send(std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const int sent = ::send(number_of(m_socket), bytes.data(), static_cast<int>(bytes.size()), 0);
        if (sent <= 0)
            return false;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

std::string qor::test::peer::receive(std::size_t count) {
    std::string text(count, '\0');
    std::size_t done = 0;
    while (done < count) {
        const int got = recv(number_of(m_socket), text.data() + done, static_cast<int>(count - done), 0);
        if (got <= 0)
            break;
        done += static_cast<std::size_t>(got);
    }
    return text.substr(0, done);
}

bool qor::test::peer::is_ended() {
    if (m_is_reset)
        return true;
    char next;
    const int got = recv(number_of(m_socket), &next, 1, 0);
    const int code = WSAGetLastError();
    return got == 0 || (got < 0 && (code == WSAECONNRESET || code == WSAECONNABORTED));
}

void qor::test::peer::end_writing() noexcept { shutdown(number_of(m_socket), SD_SEND); }

void qor::test::peer::close() noexcept {
    if (is_connected())
        closesocket(number_of(std::exchange(m_socket, -1)));
}

void qor::test::peer::reset() noexcept {
    const linger at_once = {1, 0};
    setsockopt(number_of(m_socket), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&at_once), sizeof at_once);
    close();
}

void qor::test::close_socket(int64 socket) noexcept { closesocket(static_cast<SOCKET>(socket)); }
