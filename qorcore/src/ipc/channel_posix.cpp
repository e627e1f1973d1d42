// Unix sockets and epoll.
#include "error/error.h"
#include "ipc/address_posix.h"
#include "ipc/channel.h"
#include "ipc/descriptor_posix.h"
#include "ipc/thread_start.h"
#include "platform/no_cancellation.h"
#include "platform/uninterrupted_posix.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

using qor::platform::uninterrupted;

namespace {

constexpr int waiting_connections = 1024;
constexpr uint64 never = ~uint64{0};

sockaddr_un address_of(const std::string& path) noexcept {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
    return address;
}

bool get_peer(int socket, qor::ipc::peer& out) noexcept {
    ucred who{};
    socklen_t size = sizeof who;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &who, &size) != 0)
        return false;
    out.user = std::to_string(who.uid);
    out.process = static_cast<uint64>(who.pid);
    out.is_own_user = who.uid == geteuid();
    return true;
}

bool try_connect(const qor::ipc::descriptor& socket, const std::string& path) noexcept {
    const sockaddr_un address = address_of(path);
    return uninterrupted(
               [&] { return connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address); }) == 0;
}

int new_socket() noexcept { return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); }

msghdr message_of(const qor::ipc::piece* pieces, unsigned count,
                  std::array<iovec, qor::ipc::most_pieces>& parts) noexcept {
    for (unsigned i = 0; i < count; ++i)
        parts[i] = {pieces[i].bytes, pieces[i].length};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = count;
    return message;
}

uint64 ms_now() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64>(now.tv_sec) * 1000 + static_cast<uint64>(now.tv_nsec) / 1'000'000;
}

} // namespace

// ---- the thread

int qor::ipc::start_thread(void (*run)(void* context) noexcept, void* context, thread::handle& out) noexcept {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before); // the thread inherits it
    const int code = thread::start(0, run, context, out);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return code;
}

// ---- channel

struct qor::ipc::channel::system {
    descriptor socket;
    bool is_polled = false; // the poller knows it
    int read_code = 0;
    int write_code = 0;
};

qor::ipc::channel::channel() noexcept : m_system(std::make_unique<system>()) {}
qor::ipc::channel::channel(channel&& other) noexcept = default;
qor::ipc::channel& qor::ipc::channel::operator=(channel&& other) noexcept = default;
qor::ipc::channel::~channel() = default;

bool qor::ipc::channel::is_open() const noexcept { return m_system->socket.is_open(); }
void qor::ipc::channel::close() noexcept { m_system->socket.close(); }
void qor::ipc::channel::shut_writing() noexcept { shutdown(m_system->socket.get(), SHUT_WR); }
void qor::ipc::channel::shut() noexcept { shutdown(m_system->socket.get(), SHUT_RDWR); }
int qor::ipc::channel::code() const noexcept {
    return m_system->read_code != 0 ? m_system->read_code : m_system->write_code;
}

// One piece goes by the shorter call, which matters for messages of a few bytes.
qor::ipc::io qor::ipc::channel::read(const piece* pieces, unsigned count, std::size_t& got) noexcept {
    const int socket = m_system->socket.get();
    // Descriptors that somebody sends along are closed by the kernel, because nothing is there to receive them.
    const ssize_t result = uninterrupted([&] {
        if (count == 1)
            return recv(socket, pieces->bytes, pieces->length, MSG_DONTWAIT);
        std::array<iovec, most_pieces> parts;
        msghdr message = message_of(pieces, count, parts);
        return recvmsg(socket, &message, MSG_DONTWAIT);
    });
    if (result > 0) {
        got = static_cast<std::size_t>(result);
        return io::done;
    }
    if (result == 0 || errno == ECONNRESET)
        return io::ended;
    if (errno == EAGAIN)
        return io::would_wait;
    m_system->read_code = errno;
    return io::failed;
}

qor::ipc::io qor::ipc::channel::write(const piece* pieces, unsigned count, std::size_t& written) noexcept {
    const int socket = m_system->socket.get();
    const ssize_t result = uninterrupted([&] {
        if (count == 1)
            return send(socket, pieces->bytes, pieces->length, MSG_DONTWAIT | MSG_NOSIGNAL);
        std::array<iovec, most_pieces> parts;
        const msghdr message = message_of(pieces, count, parts);
        return sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    });
    if (result >= 0) {
        written = static_cast<std::size_t>(result);
        return io::done;
    }
    if (errno == EAGAIN)
        return io::would_wait;
    m_system->write_code = errno;
    return errno == EPIPE || errno == ECONNRESET ? io::ended : io::failed;
}

bool qor::ipc::channel::wait_writable(uint32 ms) noexcept {
    pollfd one = {m_system->socket.get(), POLLOUT, 0};
    return poll(&one, 1, static_cast<int>(std::min<uint32>(ms, INT_MAX))) >= 0 || errno == EINTR;
}

// ---- listener

struct qor::ipc::listener::system {
    descriptor socket;
    descriptor lock; // of the name, as long as the server is there
    std::string path;
    dev_t device = 0; // of the socket's file
    ino_t file = 0;

    std::string lock_path() const {
        std::string out = path;
        out.append(".lock");
        return out;
    }
    int take_name();
    int replace();
    int bind_to(bool for_any_user);
};

qor::ipc::listener::listener() noexcept : m_system(std::make_unique<system>()) {}
qor::ipc::listener::~listener() { close(); }

// A file beside the socket, which a process holds as long as it listens. It is removed at the end, so whoever has
// locked one looks whether it is still there. Returns EWOULDBLOCK if somebody else holds it.
int qor::ipc::listener::system::take_name() {
    const std::string name = lock_path();
    for (;;) {
        if (!lock.make([&] {
                return ::open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, S_IRUSR | S_IWUSR);
            }))
            return errno;
        struct stat held {};
        struct stat there {};
        if (uninterrupted([&] { return flock(lock.get(), LOCK_EX | LOCK_NB); }) != 0 || fstat(lock.get(), &held) != 0) {
            const int code = errno;
            lock.close();
            return code;
        }
        if (lstat(name.c_str(), &there) == 0 && there.st_ino == held.st_ino && there.st_dev == held.st_dev)
            return 0;
        lock.close();
    }
}

// Removes the socket of a server that has died. Returns EADDRINUSE if somebody listens there without the lock, and
// EEXIST if it is something else.
int qor::ipc::listener::system::replace() {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0)
        return errno == ENOENT ? 0 : errno;
    if (!S_ISSOCK(info.st_mode))
        return EEXIST;
    descriptor trial;
    if (!trial.make(new_socket))
        return errno;
    if (try_connect(trial, path) || errno == EAGAIN)
        return EADDRINUSE;
    if (errno == EPROTOTYPE)
        return EEXIST; // a socket of another kind
    if (errno != ECONNREFUSED)
        return errno;
    return unlink(path.c_str()) == 0 || errno == ENOENT ? 0 : errno;
}

int qor::ipc::listener::system::bind_to(bool for_any_user) {
    if (!socket.make(new_socket))
        return errno;
    const sockaddr_un address = address_of(path);
    // The file gets these rights from the beginning, less those that the mask takes away.
    const mode_t rights = for_any_user ? 0666 : 0600;
    struct stat info {};
    if (fchmod(socket.get(), rights) != 0 ||
        bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return errno;
    if ((for_any_user && chmod(path.c_str(), rights) != 0) || lstat(path.c_str(), &info) != 0 ||
        listen(socket.get(), waiting_connections) != 0) {
        const int code = errno;
        unlink(path.c_str());
        return code;
    }
    device = info.st_dev;
    file = info.st_ino;
    return 0;
}

bool qor::ipc::listener::open(const char* address, bool for_any_user, std::string& full) {
    system& own = *m_system;
    const std::string path = socket_path(address, true);
    if (path.empty())
        return false;
    own.path = path;
    full.assign("unix:").append(path);
    int code = own.take_name();
    if (code == 0) {
        code = own.replace();
        if (code == 0)
            code = own.bind_to(for_any_user);
        if (code != 0) {
            unlink(own.lock_path().c_str());
            own.lock.close();
        }
    }
    if (code == 0)
        return true;
    own.socket.close();
    if (code == EWOULDBLOCK || code == EADDRINUSE)
        error::set(qorError_ipc_address_taken, {full.c_str()});
    else if (code == EEXIST)
        error::set(qorError_ipc_not_replaced, {full.c_str()});
    else
        error::set_with_reason(qorError_ipc_cannot_listen, full.c_str(), code);
    return false;
}

qor::ipc::io qor::ipc::listener::accept(channel& out, peer& from) noexcept {
    for (;;) {
        const bool is_there = out.m_system->socket.make([this] {
            return uninterrupted(
                [this] { return accept4(m_system->socket.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK); });
        });
        if (!is_there && errno == ECONNABORTED)
            continue;
        if (!is_there)
            return errno == EAGAIN ? io::would_wait : io::failed;
        if (get_peer(out.m_system->socket.get(), from))
            return io::done;
        out.close();
    }
}

// The name is free when the lock is: the socket goes before.
void qor::ipc::listener::close() noexcept {
    system& own = *m_system;
    if (!own.socket.is_open())
        return;
    struct stat info {};
    if (lstat(own.path.c_str(), &info) == 0 && info.st_dev == own.device && info.st_ino == own.file)
        unlink(own.path.c_str());
    own.socket.close();
    unlink(own.lock_path().c_str());
    own.lock.close();
}

// ---- connecting

bool qor::ipc::connect(const char* address, uint32 ms, channel& out, peer& to, std::string& full) {
    constexpr int pause = 5; // milliseconds, while the server has no room for more that wait
    const std::string path = socket_path(address, false);
    if (path.empty())
        return false;
    full.assign("unix:").append(path);
    const platform::no_cancellation keep;
    descriptor& socket = out.m_system->socket;
    const uint64 begin = ms_now();
    bool is_done = socket.make(new_socket);
    if (is_done)
        while (!(is_done = try_connect(socket, path)) && errno == EAGAIN) {
            if (ms != 0 && ms_now() - begin >= ms) {
                error::set(qorError_timed_out);
                return false;
            }
            poll(nullptr, 0, pause);
        }
    if (is_done && get_peer(socket.get(), to))
        return true;
    if (errno == ENOENT || errno == ECONNREFUSED)
        error::set(qorError_ipc_no_server, {full.c_str()});
    else
        error::set_with_reason(qorError_ipc_cannot_connect, full.c_str(), errno);
    return false;
}

// ---- poller

struct qor::ipc::poller::system {
    descriptor set;
    descriptor waker;
    // A timer of its own, because one for each wait costs more than a short message.
    descriptor timer;
    uint64 rings_at = never;

    int control(int operation, int which, uint64 key, uint32_t events) const noexcept {
        epoll_event wanted{};
        wanted.events = events;
        wanted.data.u64 = key;
        return epoll_ctl(set.get(), operation, which, &wanted) == 0 ? 0 : errno;
    }
};

namespace {
// Connections and listeners have others.
constexpr uint64 key_of_waker = 0;
constexpr uint64 key_of_timer = ~uint64{0};
} // namespace

qor::ipc::poller::poller() noexcept : m_system(std::make_unique<system>()) {}
qor::ipc::poller::~poller() = default;

int qor::ipc::poller::open() noexcept {
    if (!m_system->set.make([] { return epoll_create1(EPOLL_CLOEXEC); }) ||
        !m_system->waker.make([] { return eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); }) ||
        !m_system->timer.make([] { return timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK); }))
        return errno;
    const int code = m_system->control(EPOLL_CTL_ADD, m_system->timer.get(), key_of_timer, EPOLLIN);
    return code != 0 ? code : m_system->control(EPOLL_CTL_ADD, m_system->waker.get(), key_of_waker, EPOLLIN);
}

int qor::ipc::poller::add(channel&, uint64) noexcept { return 0; }
int qor::ipc::poller::add(listener& which, uint64 key) noexcept {
    return m_system->control(EPOLL_CTL_ADD, which.m_system->socket.get(), key, EPOLLIN);
}

// The kernel tells the end of a connection even if nothing is asked for, again and again. So what is not asked for is
// taken out.
int qor::ipc::poller::set(channel& which, uint64 key, bool read, bool write) noexcept {
    channel::system& of = *which.m_system;
    if (!of.socket.is_open())
        return 0;
    const uint32_t events = (read ? EPOLLIN : 0u) | (write ? EPOLLOUT : 0u);
    if (events == 0 && !of.is_polled)
        return 0;
    const int operation = events == 0 ? EPOLL_CTL_DEL : of.is_polled ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
    const int code = m_system->control(operation, of.socket.get(), key, events);
    if (code == 0)
        of.is_polled = events != 0;
    return code;
}

int qor::ipc::poller::set(listener& which, uint64 key, bool read) noexcept {
    return m_system->control(EPOLL_CTL_MOD, which.m_system->socket.get(), key, read ? EPOLLIN : 0u);
}

// The timer may ring earlier than needed, once, but is not set again for each wait.
unsigned qor::ipc::poller::wait(event* out, unsigned most, uint64 until, uint64 now) noexcept {
    if (until > now && until < m_system->rings_at) {
        constexpr uint64 longest = 24 * 3600 * qorTicksPerSecond; // then the caller looks again
        const uint64 left = std::min(until - now, longest);
        itimerspec when{};
        when.it_value.tv_sec = static_cast<time_t>(left / qorTicksPerSecond);
        when.it_value.tv_nsec = static_cast<long>(left % qorTicksPerSecond * (1'000'000'000 / qorTicksPerSecond));
        timerfd_settime(m_system->timer.get(), 0, &when, nullptr);
        m_system->rings_at = now + left;
    }
    std::array<epoll_event, 128> events;
    const int count = epoll_wait(m_system->set.get(), events.data(),
                                 static_cast<int>(std::min<std::size_t>(most, events.size())), until > now ? -1 : 0);
    unsigned told = 0;
    for (int i = 0; i < count; ++i) {
        const uint32_t what = events[static_cast<std::size_t>(i)].events;
        const uint64 key = events[static_cast<std::size_t>(i)].data.u64;
        if (key == key_of_waker) {
            eventfd_t ignored;
            eventfd_read(m_system->waker.get(), &ignored);
            continue;
        }
        if (key == key_of_timer) {
            uint64_t ignored;
            (void)!::read(m_system->timer.get(), &ignored, sizeof ignored);
            m_system->rings_at = never;
            continue;
        }
        out[told++] = {key, (what & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0, (what & (EPOLLOUT | EPOLLERR)) != 0};
    }
    return told;
}

void qor::ipc::poller::wake() noexcept { eventfd_write(m_system->waker.get(), 1); }
