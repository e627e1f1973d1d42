#include "sockets.h"

#include "common/system_reason.h"
#include "common/wide_windows.h"
#include "qor/system/Memory.h"
#include "socket_lookup.h"

#include <winsock2.h> // before windows.h
#include <ws2tcpip.h>

#include <algorithm>
#include <cstddef>
#include <system_error>
#include <windows.h>

namespace {

using qor::sockets::endpoint;

static_assert(offsetof(sockaddr_in, sin_port) == endpoint::port_at &&
              offsetof(sockaddr_in6, sin6_port) == endpoint::port_at &&
              offsetof(sockaddr_in, sin_addr) == endpoint::ipv4_at &&
              offsetof(sockaddr_in6, sin6_addr) == endpoint::ipv6_at);

// Called once and never undone, because the host may use sockets of its own.
void start() {
    static const bool started = [] {
        WSADATA data;
        return WSAStartup(MAKEWORD(2, 2), &data) == 0;
    }();
    (void)started;
}

const sockaddr* address_of(const endpoint& of) noexcept { return reinterpret_cast<const sockaddr*>(of.bytes); }
sockaddr* address_of(endpoint& of) noexcept { return reinterpret_cast<sockaddr*>(of.bytes); }
int family_of(const endpoint& of) noexcept { return address_of(of)->sa_family; }
int size_of(const endpoint& of) noexcept { return static_cast<int>(of.size); }

SOCKET handle_of(const qor::sockets::socket& of) noexcept { return static_cast<SOCKET>(of.handle()); }

// Makes a socket non-blocking, without send delay, and not inheritable by child processes.
void set_up(SOCKET made) noexcept {
    u_long on = 1;
    ioctlsocket(made, FIONBIO, &on);
    const int no_delay = 1;
    setsockopt(made, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&no_delay), sizeof no_delay);
    SetHandleInformation(reinterpret_cast<HANDLE>(made), HANDLE_FLAG_INHERIT, 0);
}

int make(int family, int type, int protocol, qor::sockets::socket& out) {
    start();
    const SOCKET made =
        WSASocketW(family, type, protocol, nullptr, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
    if (made == INVALID_SOCKET)
        return WSAGetLastError();
    set_up(made);
    out = qor::sockets::socket(static_cast<std::intptr_t>(made));
    return 0;
}

int set_on(const qor::sockets::socket& of, int level, int option) noexcept {
    const int on = 1;
    return setsockopt(handle_of(of), level, option, reinterpret_cast<const char*>(&on), sizeof on);
}

[[noreturn]] void give_up() { throw std::system_error(WSAGetLastError(), qor::modules::system_category()); }

} // namespace

const int qor::sockets::would_block = WSAEWOULDBLOCK;
const int qor::sockets::timed_out = WSAETIMEDOUT;
const int qor::sockets::in_use = WSAEADDRINUSE;

bool qor::sockets::is_not_here(int code) noexcept { return code == WSAEADDRNOTAVAIL || code == WSAEAFNOSUPPORT; }

// Windows has no fork.
unsigned qor::sockets::fork_count() noexcept { return 0; }

qor::sockets::socket::socket(std::intptr_t handle) : m_handle(handle) {}

// On Windows, no code closes handles that it does not know.
bool qor::sockets::socket::is_ours() const noexcept { return is_open(); }

qor::sockets::socket::~socket() {
    if (is_open())
        closesocket(handle_of(*this));
}

bool qor::sockets::endpoint::is_ipv6() const noexcept { return family_of(*this) == AF_INET6; }

std::string qor::sockets::endpoint::host() const {
    wchar_t text[NI_MAXHOST] = L"?";
    (void)GetNameInfoW(address_of(*this), size_of(*this), text, NI_MAXHOST, nullptr, 0, NI_NUMERICHOST);
    return modules::from_wide(text);
}

int qor::sockets::resolve(const char* host, uint16 port, bool to_listen, std::vector<endpoint>& out,
                          std::string& reason) {
    start();
    ADDRINFOW hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = to_listen ? AI_PASSIVE : 0;
    const int failed = look_up(modules::to_wide(host), std::to_wstring(port), hints, GetAddrInfoW, FreeAddrInfoW, out);
    if (failed != 0)
        reason = modules::system_reason(failed);
    return failed;
}

int qor::sockets::listen_at(const endpoint& at, socket& out) {
    socket made;
    if (const int failed = make(family_of(at), SOCK_STREAM, IPPROTO_TCP, made))
        return failed;
    // Without this option, another program could bind the same port.
    set_on(made, SOL_SOCKET, SO_EXCLUSIVEADDRUSE);
    if (at.is_ipv6())
        set_on(made, IPPROTO_IPV6, IPV6_V6ONLY);
    if (bind(handle_of(made), address_of(at), size_of(at)) != 0 || listen(handle_of(made), SOMAXCONN) != 0)
        return WSAGetLastError();
    out = std::move(made);
    return 0;
}

qor::sockets::endpoint qor::sockets::local_end(const socket& of) noexcept {
    endpoint at;
    int size = sizeof at.bytes;
    getsockname(handle_of(of), address_of(at), &size);
    at.size = static_cast<unsigned>(size);
    return at;
}

int qor::sockets::accept_from(const socket& listener, socket& out, endpoint& from) {
    int size = sizeof from.bytes;
    const SOCKET made = accept(handle_of(listener), address_of(from), &size);
    if (made == INVALID_SOCKET)
        return WSAGetLastError();
    set_up(made);
    setsockopt(made, SOL_SOCKET, SO_SNDBUF, reinterpret_cast<const char*>(&send_buffer_size), sizeof send_buffer_size);
    from.size = static_cast<unsigned>(size);
    out = socket(static_cast<std::intptr_t>(made));
    return 0;
}

int qor::sockets::connect_to(const endpoint& to, int milliseconds, socket& out) {
    socket made;
    if (const int failed = make(family_of(to), SOCK_STREAM, IPPROTO_TCP, made))
        return failed;
    if (connect(handle_of(made), address_of(to), size_of(to)) != 0) {
        if (WSAGetLastError() != WSAEWOULDBLOCK)
            return WSAGetLastError();
        // WSAPoll of older systems does not report a failed connection.
        fd_set stands, failed;
        FD_ZERO(&stands);
        FD_ZERO(&failed);
        FD_SET(handle_of(made), &stands);
        FD_SET(handle_of(made), &failed);
        timeval time{milliseconds / 1000, milliseconds % 1000 * 1000};
        if (select(0, nullptr, &stands, &failed, &time) <= 0)
            return timed_out;
        int reason = 0;
        int size = sizeof reason;
        getsockopt(handle_of(made), SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&reason), &size);
        if (reason != 0)
            return reason;
    }
    out = std::move(made);
    return 0;
}

int qor::sockets::receive(const socket& from, char* bytes, std::size_t size, std::size_t* count) noexcept {
    const int got = recv(handle_of(from), bytes, static_cast<int>(size), 0);
    *count = got > 0 ? static_cast<std::size_t>(got) : 0;
    return got >= 0 ? 0 : WSAGetLastError();
}

int qor::sockets::send(const socket& to, const char* bytes, std::size_t size, std::size_t* count) noexcept {
    const int sent = ::send(handle_of(to), bytes, static_cast<int>(size), 0);
    *count = sent > 0 ? static_cast<std::size_t>(sent) : 0;
    return sent >= 0 ? 0 : WSAGetLastError();
}

bool qor::sockets::wait(std::span<watched> all, int milliseconds) {
    std::vector<WSAPOLLFD> list;
    for (const watched& each : all)
        list.push_back({handle_of(*each.what),
                        static_cast<short>((each.for_reading ? POLLRDNORM : 0) | (each.for_writing ? POLLWRNORM : 0)),
                        0});
    const int ready = WSAPoll(list.data(), static_cast<ULONG>(list.size()), milliseconds);
    for (std::size_t i = 0; i < all.size(); ++i)
        all[i].ready = ready > 0 && list[i].revents != 0;
    return true;
}

// A datagram socket on the loopback address that is connected to itself.
qor::sockets::waker::waker() {
    endpoint at;
    auto* const address = reinterpret_cast<sockaddr_in*>(at.bytes);
    address->sin_family = AF_INET;
    address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    at.size = sizeof *address;
    if (make(AF_INET, SOCK_DGRAM, IPPROTO_UDP, m_receiver) != 0 ||
        bind(handle_of(m_receiver), address_of(at), size_of(at)) != 0)
        give_up();
    at = local_end(m_receiver);
    if (connect(handle_of(m_receiver), address_of(at), size_of(at)) != 0)
        give_up();
}

std::thread qor::sockets::start_thread(std::function<void()> run) {
    return std::thread([run = std::move(run)] { or_end(run); });
}
