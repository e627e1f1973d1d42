#include "net/sockets.h"

#include "net/winsock_windows.h"

#include <algorithm>
#include <climits>

namespace {

using qor::net::socket_handle;
using qor::net::the_winsock;

constexpr uint64 largest_part = 64 * 1024; // of a write, so that one that is given up has not sent much more

SOCKET number_of(const socket_handle& of) noexcept { return static_cast<SOCKET>(of.number); }

int last_code() noexcept { return static_cast<int>(GetLastError()); }

void switch_on(SOCKET socket, int level, int option) noexcept {
    const int on = 1;
    (void)the_winsock().setsockopt(socket, level, option, reinterpret_cast<const char*>(&on), sizeof on);
}

void close_handle(socket_handle& which) noexcept {
    if (which.is_open())
        the_winsock().closesocket(number_of(which));
    which = {};
}

// An operation that may take its time, and its event.
class operation {
public:
    operation() noexcept : m_event(CreateEventW(nullptr, TRUE, FALSE, nullptr)) { m_state.hEvent = m_event; }
    operation(const operation&) = delete;
    operation& operator=(const operation&) = delete;
    ~operation() {
        if (m_event != nullptr)
            CloseHandle(m_event);
    }

    bool is_usable() const noexcept { return m_event != nullptr; }
    OVERLAPPED* state() noexcept { return &m_state; }

    // `result` is that of the call which began it. Waits until it has ended, the connection is closed by another
    // thread, or the time is over; what has been done until then counts. Returns 0 or a code.
    int finish(int result, const qor::net::stream& of, const qor::net::deadline& until, DWORD& count) noexcept {
        const SOCKET socket = number_of(of.socket);
        bool is_late = false;
        if (result != 0) {
            const int code = last_code();
            if (code != WSA_IO_PENDING)
                return code;
            const HANDLE both[] = {m_event, of.interruption};
            const DWORD ms = until.is_limited() ? until.left(INFINITE - 1) : INFINITE;
            if (WaitForMultipleObjects(2, both, FALSE, ms) != WAIT_OBJECT_0) {
                is_late = true;
                CancelIoEx(reinterpret_cast<HANDLE>(socket), &m_state);
            }
        }
        DWORD flags = 0;
        if (the_winsock().WSAGetOverlappedResult(socket, &m_state, &count, TRUE, &flags))
            return 0;
        const int code = last_code();
        return is_late && (code == WSA_OPERATION_ABORTED || code == WSAEINTR) ? WSAETIMEDOUT : code;
    }

private:
    HANDLE m_event;
    OVERLAPPED m_state{};
};

} // namespace

const int qor::net::timed_out = WSAETIMEDOUT;

bool qor::net::is_not_here(int code) noexcept { return code == WSAEADDRNOTAVAIL || code == WSAEAFNOSUPPORT; }
// An address that another socket has for itself is denied.
bool qor::net::is_in_use(int code) noexcept { return code == WSAEADDRINUSE || code == WSAEACCES; }

int qor::net::listening_socket::open(const qorIPEndpoint& at, uint32 backlog, bell& rung) noexcept {
    const winsock& system = the_winsock();
    if (system.failure != 0)
        return system.failure;
    const socket_address address(at.address, at.port);
    const SOCKET made = system.WSASocketW(address.get()->sa_family, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                                          WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
    if (made == INVALID_SOCKET)
        return last_code();
    socket_handle handle{static_cast<std::intptr_t>(made), {0, 0}};
    // Otherwise another program could listen at the same port.
    switch_on(made, SOL_SOCKET, SO_EXCLUSIVEADDRUSE);
    if (at.address.family == qorAddressFamily::ipv6)
        switch_on(made, IPPROTO_IPV6, IPV6_V6ONLY);
    const int waiting = backlog != 0 ? static_cast<int>(std::min<uint32>(backlog, INT_MAX)) : SOMAXCONN;
    if (system.bind(made, address.get(), address.size()) != 0 || system.listen(made, waiting) != 0 ||
        system.WSAEventSelect(made, rung.event(), FD_ACCEPT) != 0) { // which makes it non-blocking, too
        const int code = last_code();
        close_handle(handle);
        return code;
    }
    m_socket = handle;
    return 0;
}

qorIPEndpoint qor::net::listening_socket::local_end() const noexcept {
    socket_address at;
    return the_winsock().getsockname(number_of(m_socket), at.room(), at.size_of_room()) == 0 ? at.endpoint()
                                                                                             : qorIPEndpoint();
}

qor::net::acceptance qor::net::listening_socket::accept(stream& out, qorIPEndpoint& from, qorIPEndpoint& at) noexcept {
    const winsock& system = the_winsock();
    socket_address peer;
    const SOCKET made = system.accept(number_of(m_socket), peer.room(), peer.size_of_room());
    if (made == INVALID_SOCKET)
        switch (last_code()) {
        case WSAEWOULDBLOCK:
            return acceptance::nothing;
        case WSAEMFILE:
        case WSAENOBUFS:
            return acceptance::exhausted;
        case WSAENOTSOCK:
        case WSAEINVAL:
        case WSAEOPNOTSUPP:
            return acceptance::broken;
        default:
            return acceptance::gone;
        }
    from = peer.endpoint();
    out.socket = {static_cast<std::intptr_t>(made), {0, 0}};
    out.interruption = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (out.interruption == nullptr) {
        reset(out);
        return acceptance::gone;
    }
    // It inherits the event of the listening socket.
    system.WSAEventSelect(made, nullptr, 0);
    u_long on = 1;
    system.ioctlsocket(made, static_cast<long>(FIONBIO), &on);
    switch_on(made, IPPROTO_TCP, TCP_NODELAY);
    SetHandleInformation(reinterpret_cast<HANDLE>(made), HANDLE_FLAG_INHERIT, 0);
    socket_address own;
    at = system.getsockname(made, own.room(), own.size_of_room()) == 0 ? own.endpoint() : qorIPEndpoint();
    return acceptance::made;
}

void qor::net::listening_socket::close() noexcept { close_handle(m_socket); }

int qor::net::bell::open() noexcept {
    if (m_event == nullptr)
        m_event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    return m_event != nullptr ? 0 : last_code();
}

void qor::net::bell::close() noexcept {
    if (m_event != nullptr)
        CloseHandle(m_event);
    m_event = nullptr;
}

void qor::net::bell::ring() noexcept { SetEvent(m_event); }

// One event stands for all sockets: which of them has a connection is tried out.
void qor::net::bell::wait(std::span<watched> all, int milliseconds) noexcept {
    WaitForSingleObject(m_event, milliseconds < 0 ? INFINITE : static_cast<DWORD>(milliseconds));
    for (watched& each : all)
        each.ready = true;
}

int qor::net::receive(const stream& from, void* bytes, uint64 length, const deadline& until, uint64& count) noexcept {
    operation now;
    if (!now.is_usable())
        return last_code();
    WSABUF room = {static_cast<ULONG>(std::min<uint64>(length, INT_MAX)), static_cast<char*>(bytes)};
    DWORD got = 0;
    DWORD flags = 0;
    const int result = the_winsock().WSARecv(number_of(from.socket), &room, 1, nullptr, &flags, now.state(), nullptr);
    const int code = now.finish(result, from, until, got);
    count = got;
    return code;
}

int qor::net::send(const stream& to, const void* bytes, uint64 length, const deadline& until, uint64& done) noexcept {
    while (done < length) {
        operation now;
        if (!now.is_usable())
            return last_code();
        WSABUF part = {static_cast<ULONG>(std::min(length - done, largest_part)),
                       const_cast<char*>(static_cast<const char*>(bytes)) + done};
        DWORD sent = 0;
        const int result = the_winsock().WSASend(number_of(to.socket), &part, 1, nullptr, 0, now.state(), nullptr);
        const int code = now.finish(result, to, until, sent);
        done += sent;
        if (code != 0)
            return code;
    }
    return 0;
}

int qor::net::end_writing(const stream& of) noexcept {
    return the_winsock().shutdown(number_of(of.socket), SD_SEND) == 0 ? 0 : last_code();
}

void qor::net::interrupt(const stream& of) noexcept {
    SetEvent(of.interruption);
    the_winsock().shutdown(number_of(of.socket), SD_SEND);
}

void qor::net::close(stream& which) noexcept {
    close_handle(which.socket);
    if (which.interruption != nullptr)
        CloseHandle(which.interruption);
    which.interruption = nullptr;
}

void qor::net::reset(stream& which) noexcept {
    const linger at_once = {1, 0};
    (void)the_winsock().setsockopt(number_of(which.socket), SOL_SOCKET, SO_LINGER,
                                   reinterpret_cast<const char*>(&at_once), sizeof at_once);
    close(which);
}

std::intptr_t qor::net::take(stream& which) noexcept {
    const std::intptr_t taken = std::exchange(which.socket, {}).number;
    close(which);
    return taken;
}

// Windows has no fork.
void qor::net::forget(const socket_handle&) noexcept {}
