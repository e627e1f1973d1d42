#include "net/sockets.h"

#include "net/socket_address_posix.h"
#include "platform/uninterrupted_posix.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using qor::net::socket_handle;
using qor::platform::uninterrupted;

// While a bell could not be made again, the waiting thread looks so often.
constexpr int look_every = 100; // milliseconds

int number_of(const socket_handle& of) noexcept { return static_cast<int>(of.number); }

// Takes a new descriptor over. Returns 0, or a code after closing it.
int adopt(int number, socket_handle& out) noexcept {
    struct stat status;
    if (fstat(number, &status) != 0) {
        const int code = errno;
        ::close(number);
        return code;
    }
    out = {number, {status.st_dev, status.st_ino}};
    return 0;
}

bool is_ours(const socket_handle& of) noexcept {
    struct stat status;
    if (!of.is_open())
        return false;
    if (fstat(number_of(of), &status) != 0)
        return errno != EBADF;
    return status.st_dev == of.identity[0] && status.st_ino == of.identity[1];
}

void close_handle(socket_handle& which) noexcept {
    if (is_ours(which))
        ::close(number_of(which));
    which = {};
}

void switch_on(int socket, int level, int option) noexcept {
    const int on = 1;
    (void)setsockopt(socket, level, option, &on, sizeof on);
}

// Waits for a socket of a connection. Returns 0 or a code.
int wait_for(int socket, short events, const qor::net::deadline& until) noexcept {
    pollfd one = {socket, events, 0};
    for (;;) {
        const int ready = poll(&one, 1, until.is_limited() ? static_cast<int>(until.left(INT_MAX)) : -1);
        if (ready > 0)
            return 0;
        if (ready < 0 && errno != EINTR)
            return errno;
        if (until.is_over())
            return ETIMEDOUT;
    }
}

} // namespace

const int qor::net::timed_out = ETIMEDOUT;

bool qor::net::is_not_here(int code) noexcept { return code == EADDRNOTAVAIL || code == EAFNOSUPPORT; }
bool qor::net::is_in_use(int code) noexcept { return code == EADDRINUSE; }

int qor::net::listening_socket::open(const qorIPEndpoint& at, uint32 backlog, bell&) noexcept {
    const socket_address address(at.address, at.port);
    const int made = socket(address.get()->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (made < 0)
        return errno;
    socket_handle handle;
    if (const int code = adopt(made, handle))
        return code;
    // Connections of the listener before may still be on their way out.
    switch_on(made, SOL_SOCKET, SO_REUSEADDR);
    if (at.address.family == qorAddressFamily::ipv6)
        switch_on(made, IPPROTO_IPV6, IPV6_V6ONLY);
    switch_on(made, IPPROTO_TCP, TCP_NODELAY); // accepted connections inherit it
    const int waiting = backlog != 0 ? static_cast<int>(std::min<uint32>(backlog, INT_MAX)) : SOMAXCONN;
    if (bind(made, address.get(), address.size()) != 0 || listen(made, waiting) != 0) {
        const int code = errno;
        close_handle(handle);
        return code;
    }
    m_socket = handle;
    return 0;
}

qorIPEndpoint qor::net::listening_socket::local_end() const noexcept {
    socket_address at;
    return getsockname(number_of(m_socket), at.room(), at.size_of_room()) == 0 ? at.endpoint() : qorIPEndpoint();
}

qor::net::acceptance qor::net::listening_socket::accept(stream& out, qorIPEndpoint& from, qorIPEndpoint& at) noexcept {
    if (!is_ours(m_socket))
        return acceptance::broken;
    socket_address peer;
    const int made = accept4(number_of(m_socket), peer.room(), peer.size_of_room(), SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (made < 0)
        switch (errno) {
        case EAGAIN:
            return acceptance::nothing;
        case EMFILE:
        case ENFILE:
        case ENOBUFS:
        case ENOMEM:
            return acceptance::exhausted;
        case EBADF:
        case EINVAL:
        case ENOTSOCK:
        case EOPNOTSUPP:
            return acceptance::broken;
        default: // of the connection: the network's, a firewall's, an interruption
            return acceptance::gone;
        }
    if (adopt(made, out.socket) != 0)
        return acceptance::gone;
    from = peer.endpoint();
    socket_address own;
    at = getsockname(made, own.room(), own.size_of_room()) == 0 ? own.endpoint() : qorIPEndpoint();
    return acceptance::made;
}

// A child that was just forked may still have the socket, and so has one that has not yet executed its program. So the
// port is given up, not only the descriptor.
void qor::net::listening_socket::close() noexcept {
    if (is_ours(m_socket))
        (void)shutdown(number_of(m_socket), SHUT_RDWR);
    close_handle(m_socket);
}

int qor::net::bell::open() noexcept {
    if (is_ours(m_ends[0]) && is_ours(m_ends[1]))
        return 0;
    close();
    int ends[2];
    if (pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0)
        return errno;
    const int first = adopt(ends[0], m_ends[0]);
    const int second = adopt(ends[1], m_ends[1]);
    if (first == 0 && second == 0)
        return 0;
    close();
    return first != 0 ? first : second;
}

void qor::net::bell::close() noexcept {
    for (socket_handle& each : m_ends)
        close_handle(each);
}

void qor::net::bell::ring() noexcept {
    // Where the host has closed the other end, the reading one has said so.
    if (is_ours(m_ends[1]))
        (void)!uninterrupted([&] { return write(number_of(m_ends[1]), "", 1); });
}

void qor::net::bell::wait(std::span<watched> all, int milliseconds) noexcept {
    std::vector<pollfd> list;
    list.reserve(all.size() + 1);
    for (const watched& each : all)
        list.push_back({number_of(each.socket->handle()), POLLIN, 0});
    const bool has_bell = is_ours(m_ends[0]) && is_ours(m_ends[1]);
    if (has_bell)
        list.push_back({number_of(m_ends[0]), POLLIN, 0});
    else
        milliseconds = milliseconds < 0 ? look_every : std::min(milliseconds, look_every);
    // A wait that ends early is no harm, but one that cannot even begin would be made again at once.
    const int ready = poll(list.data(), list.size(), milliseconds);
    if (ready < 0 && errno != EINTR)
        std::this_thread::sleep_for(std::chrono::milliseconds(look_every));
    for (std::size_t i = 0; i < all.size(); ++i)
        all[i].ready = ready > 0 && list[i].revents != 0;
    if (!has_bell || ready <= 0 || list.back().revents == 0 || !is_ours(m_ends[0]))
        return;
    std::array<char, 64> rings;
    while (read(number_of(m_ends[0]), rings.data(), rings.size()) > 0)
        ;
}

int qor::net::receive(const stream& from, void* bytes, uint64 length, const deadline& until, uint64& count) noexcept {
    const auto most = static_cast<std::size_t>(std::min<uint64>(length, SSIZE_MAX));
    for (;;) {
        const ssize_t got = recv(number_of(from.socket), bytes, most, MSG_DONTWAIT);
        if (got >= 0) {
            count = static_cast<uint64>(got);
            return 0;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN)
            return errno;
        if (const int code = wait_for(number_of(from.socket), POLLIN, until))
            return code;
    }
}

int qor::net::send(const stream& to, const void* bytes, uint64 length, const deadline& until, uint64& done) noexcept {
    while (done < length) {
        const auto most = static_cast<std::size_t>(std::min<uint64>(length - done, SSIZE_MAX));
        const ssize_t sent =
            ::send(number_of(to.socket), static_cast<const char*>(bytes) + done, most, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0) {
            done += static_cast<uint64>(sent);
            continue;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN)
            return errno;
        if (const int code = wait_for(number_of(to.socket), POLLOUT, until))
            return code;
    }
    return 0;
}

int qor::net::end_writing(const stream& of) noexcept {
    return shutdown(number_of(of.socket), SHUT_WR) == 0 ? 0 : errno;
}

void qor::net::interrupt(const stream& of) noexcept {
    if (is_ours(of.socket))
        (void)shutdown(number_of(of.socket), SHUT_RDWR);
}

void qor::net::close(stream& which) noexcept { close_handle(which.socket); }

void qor::net::reset(stream& which) noexcept {
    const linger at_once = {1, 0};
    (void)setsockopt(number_of(which.socket), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    close_handle(which.socket);
}

std::intptr_t qor::net::take(stream& which) noexcept { return std::exchange(which.socket, {}).number; }

void qor::net::forget(const socket_handle& which) noexcept {
    socket_handle copy = which;
    close_handle(copy);
}
