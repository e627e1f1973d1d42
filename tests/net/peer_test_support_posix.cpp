#include "net/peer_test_support.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int number_of(std::intptr_t socket) { return static_cast<int>(socket); }

} // namespace

qor::test::peer::peer(uint16 port, qorAddressFamily family, const char* from) {
    const bool is_ipv4 = family == qorAddressFamily::ipv4;
    const int made = ::socket(is_ipv4 ? AF_INET : AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (made < 0)
        return;
    const timeval minute = {60, 0};
    setsockopt(made, SOL_SOCKET, SO_RCVTIMEO, &minute, sizeof minute);
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
    in6.sin6_addr = in6addr_loopback;
    in6.sin6_port = htons(port);
    const int failed = is_ipv4 ? connect(made, reinterpret_cast<const sockaddr*>(&in), sizeof in)
                               : connect(made, reinterpret_cast<const sockaddr*>(&in6), sizeof in6);
    m_is_reset = failed != 0 && errno == ECONNRESET;
    if (failed == 0)
        m_socket = made;
    else
        ::close(made);
}

uint16 qor::test::peer::port() const noexcept {
    sockaddr_in6 own{};
    socklen_t size = sizeof own;
    getsockname(number_of(m_socket), reinterpret_cast<sockaddr*>(&own), &size);
    return ntohs(own.sin6_port); // at the same place in both families
}

bool qor::test::peer::send(std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(number_of(m_socket), bytes.data(), bytes.size(), MSG_NOSIGNAL);
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
        const ssize_t got = recv(number_of(m_socket), text.data() + done, count - done, 0);
        if (got <= 0)
            break;
        done += static_cast<std::size_t>(got);
    }
    return text.substr(0, done);
}

bool qor::test::peer::is_ended() {
    if (m_is_reset)
        return true;
    char byte;
    const ssize_t got = recv(number_of(m_socket), &byte, 1, 0);
    return got == 0 || (got < 0 && errno == ECONNRESET);
}

void qor::test::peer::end_writing() noexcept { shutdown(number_of(m_socket), SHUT_WR); }

void qor::test::peer::close() noexcept {
    if (is_connected())
        ::close(number_of(std::exchange(m_socket, -1)));
}

void qor::test::peer::reset() noexcept {
    const linger at_once = {1, 0};
    setsockopt(number_of(m_socket), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    close();
}

void qor::test::close_socket(int64 socket) noexcept { ::close(static_cast<int>(socket)); }
