#include "sockets.h"

#include "common/system_reason.h"
#include "qor/system/Memory.h"
#include "socket_lookup.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <mutex>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace {

using qor::sockets::endpoint;

static_assert(offsetof(sockaddr_in, sin_port) == endpoint::port_at &&
              offsetof(sockaddr_in6, sin6_port) == endpoint::port_at &&
              offsetof(sockaddr_in, sin_addr) == endpoint::ipv4_at &&
              offsetof(sockaddr_in6, sin6_addr) == endpoint::ipv6_at);

// All sockets of the module, so that a forked child can close them. Never destroyed.
struct register_of_sockets {
    struct entry {
        int handle;
        std::uint64_t identity;
    };

    std::mutex lock;
    std::vector<entry> open;
    unsigned forks = 0;
};

// Returns the inode number of a socket; 0 if the handle is not a socket.
std::uint64_t identity_of(std::intptr_t handle) noexcept {
    struct stat status;
    return fstat(static_cast<int>(handle), &status) == 0 && S_ISSOCK(status.st_mode) ? status.st_ino : 0;
}

void before_fork();
void after_fork_in_parent();
void after_fork_in_child();

// Allocates no memory, because destructors also call this.
register_of_sockets& open_sockets() noexcept {
    alignas(register_of_sockets) static std::byte place[sizeof(register_of_sockets)];
    static register_of_sockets* const made = [] {
        pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
        return new (place) register_of_sockets;
    }();
    return *made;
}

void before_fork() { open_sockets().lock.lock(); }
void after_fork_in_parent() { open_sockets().lock.unlock(); }

// A connection that stays open in the child would outlive the parent's end of it.
void after_fork_in_child() {
    for (const auto& each : open_sockets().open)
        if (identity_of(each.handle) == each.identity)
            close(each.handle);
    open_sockets().open.clear();
    ++open_sockets().forks;
    open_sockets().lock.unlock();
}

const sockaddr* address_of(const endpoint& of) noexcept { return reinterpret_cast<const sockaddr*>(of.bytes); }
sockaddr* address_of(endpoint& of) noexcept { return reinterpret_cast<sockaddr*>(of.bytes); }
int family_of(const endpoint& of) noexcept { return address_of(of)->sa_family; }
int handle_of(const qor::sockets::socket& of) noexcept { return static_cast<int>(of.handle()); }

int make(const endpoint& for_what, qor::sockets::socket& out) {
    const int made = socket(family_of(for_what), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (made < 0)
        return errno;
    out = qor::sockets::socket(made);
    const int on = 1;
    // Frames are small, and a peer waits for each answer.
    setsockopt(made, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return 0;
}

} // namespace

const int qor::sockets::would_block = EAGAIN;
const int qor::sockets::timed_out = ETIMEDOUT;
const int qor::sockets::in_use = EADDRINUSE;

bool qor::sockets::is_not_here(int code) noexcept { return code == EADDRNOTAVAIL || code == EAFNOSUPPORT; }

unsigned qor::sockets::fork_count() noexcept { return open_sockets().forks; }

// The delegating constructor has finished, so if push_back throws, the destructor closes the handle.
qor::sockets::socket::socket(std::intptr_t handle) : socket() {
    m_handle = handle;
    m_identity = identity_of(handle);
    const std::lock_guard hold(open_sockets().lock);
    m_forks = open_sockets().forks;
    open_sockets().open.push_back({static_cast<int>(handle), m_identity});
}

bool qor::sockets::socket::is_ours() const noexcept {
    // A fork or the host may have closed the descriptor, and its number may belong to another file now.
    return is_open() && m_forks == open_sockets().forks && m_identity != 0 && identity_of(m_handle) == m_identity;
}

qor::sockets::socket::~socket() {
    if (!is_open())
        return;
    const std::lock_guard hold(open_sockets().lock);
    if (m_forks == open_sockets().forks)
        std::erase_if(open_sockets().open, [this](const auto& each) { return each.identity == m_identity; });
    if (is_ours())
        close(static_cast<int>(m_handle));
}

bool qor::sockets::endpoint::is_ipv6() const noexcept { return family_of(*this) == AF_INET6; }

std::string qor::sockets::endpoint::host() const {
    char text[NI_MAXHOST] = "?";
    (void)getnameinfo(address_of(*this), size, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
    return text;
}

int qor::sockets::resolve(const char* host, uint16 port, bool to_listen, std::vector<endpoint>& out,
                          std::string& reason) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | (to_listen ? AI_PASSIVE : 0);
    const int failed = look_up<std::string>(host, std::to_string(port), hints, getaddrinfo, freeaddrinfo, out);
    if (failed != 0)
        reason = failed == EAI_SYSTEM ? modules::system_reason(errno) : gai_strerror(failed);
    return failed;
}

int qor::sockets::listen_at(const endpoint& at, socket& out) {
    socket made;
    if (const int failed = make(at, made))
        return failed;
    const int on = 1;
    setsockopt(handle_of(made), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (at.is_ipv6())
        setsockopt(handle_of(made), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    if (bind(handle_of(made), address_of(at), at.size) != 0 || listen(handle_of(made), SOMAXCONN) != 0)
        return errno;
    out = std::move(made);
    return 0;
}

qor::sockets::endpoint qor::sockets::local_end(const socket& of) noexcept {
    endpoint at;
    socklen_t size = sizeof at.bytes;
    getsockname(handle_of(of), address_of(at), &size);
    at.size = size;
    return at;
}

int qor::sockets::accept_from(const socket& listener, socket& out, endpoint& from) {
    if (!listener.is_ours())
        return EBADF;
    socklen_t size = sizeof from.bytes;
    const int made = accept4(handle_of(listener), address_of(from), &size, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (made < 0)
        return errno == EWOULDBLOCK ? would_block : errno;
    from.size = size;
    out = socket(made);
    const int on = 1;
    setsockopt(made, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(made, SOL_SOCKET, SO_SNDBUF, &send_buffer_size, sizeof send_buffer_size);
    return 0;
}

int qor::sockets::connect_to(const endpoint& to, int milliseconds, socket& out) {
    socket made;
    if (const int failed = make(to, made))
        return failed;
    if (connect(handle_of(made), address_of(to), to.size) != 0) {
        if (errno != EINPROGRESS)
            return errno;
        watched when{&made, false, true};
        if (!wait({&when, 1}, milliseconds))
            return EBADF;
        if (!when.ready)
            return timed_out;
        int failed = 0;
        socklen_t size = sizeof failed;
        getsockopt(handle_of(made), SOL_SOCKET, SO_ERROR, &failed, &size);
        if (failed != 0)
            return failed;
    }
    out = std::move(made);
    return 0;
}

int qor::sockets::receive(const socket& from, char* bytes, std::size_t size, std::size_t* count) noexcept {
    *count = 0;
    if (!from.is_ours())
        return EBADF;
    const ssize_t got = recv(handle_of(from), bytes, size, 0);
    *count = got > 0 ? static_cast<std::size_t>(got) : 0;
    return got >= 0 ? 0 : errno == EINTR ? would_block : errno;
}

int qor::sockets::send(const socket& to, const char* bytes, std::size_t size, std::size_t* count) noexcept {
    *count = 0;
    if (!to.is_ours())
        return EBADF;
    const ssize_t sent = ::send(handle_of(to), bytes, size, MSG_NOSIGNAL);
    *count = sent > 0 ? static_cast<std::size_t>(sent) : 0;
    return sent >= 0 ? 0 : errno == EINTR ? would_block : errno;
}

bool qor::sockets::wait(std::span<watched> all, int milliseconds) {
    std::vector<pollfd> list;
    for (const watched& each : all) {
        if (!each.what->is_ours())
            return false;
        list.push_back({handle_of(*each.what),
                        static_cast<short>((each.for_reading ? POLLIN : 0) | (each.for_writing ? POLLOUT : 0)), 0});
    }
    using clock = std::chrono::steady_clock;
    const clock::time_point end = clock::now() + std::chrono::milliseconds(milliseconds);
    int ready;
    // A signal that interrupts poll() must not end the wait early.
    while ((ready = poll(list.data(), list.size(), milliseconds)) < 0 && errno == EINTR)
        if (milliseconds > 0)
            milliseconds = static_cast<int>(
                std::max<long long>(0, std::chrono::ceil<std::chrono::milliseconds>(end - clock::now()).count()));
    for (std::size_t i = 0; i < all.size(); ++i)
        all[i].ready = ready > 0 && list[i].revents != 0;
    return std::all_of(all.begin(), all.end(), [](const watched& each) { return each.what->is_ours(); });
}

qor::sockets::waker::waker() {
    int ends[2];
    // If the host closes one end by mistake, the other end becomes readable, so a wait ends.
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::system_error(errno, qor::modules::system_category());
    m_receiver = socket(ends[0]);
    m_sender = socket(ends[1]);
}

std::thread qor::sockets::start_thread(std::function<void()> run) {
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    struct put_back {
        const sigset_t& mask;
        ~put_back() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
    } const at_end{before};
    return std::thread([run = std::move(run)] { or_end(run); });
}
