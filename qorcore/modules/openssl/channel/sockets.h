// Inside the module qor-openssl, the seam to the system: sockets that never block, and threads that disturb nobody.
// Results are error codes of the system, 0 for success.
#pragma once

#include "qor/system/Types.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace qor::sockets {

// Counts the forks that led to this process: what is older than the last one, a thread or a socket, is the parent's.
unsigned fork_count() noexcept;

// Owned. No child process that runs another program inherits it, a forked one gives it up at once; a peer that is gone
// is an error, no signal.
class socket {
public:
    socket() noexcept = default;
    explicit socket(std::intptr_t handle); // throws std::bad_alloc; the handle is closed then
    socket(socket&& other) noexcept
        : m_handle(std::exchange(other.m_handle, -1)), m_identity(other.m_identity), m_forks(other.m_forks) {}
    socket& operator=(socket&& other) noexcept {
        std::swap(m_handle, other.m_handle);
        std::swap(m_identity, other.m_identity);
        std::swap(m_forks, other.m_forks);
        return *this;
    }
    ~socket();

    bool is_open() const noexcept { return m_handle != -1; }
    std::intptr_t handle() const noexcept { return m_handle; }

    // False: it is not open, or the process has closed it behind our back, as one does that closes all descriptors it
    // does not know. The number may be another file's by now: such a socket is neither read nor written nor closed any
    // more.
    bool is_ours() const noexcept;

private:
    std::intptr_t m_handle = -1;
    std::uint64_t m_identity = 0; // which socket the number stands for
    unsigned m_forks = 0;
};

// The address of a socket, as the system has it.
struct endpoint {
    static constexpr std::size_t port_at = 2, ipv4_at = 4, ipv6_at = 8;

    endpoint() noexcept = default;
    endpoint(const void* address, std::size_t length) noexcept;

    alignas(8) unsigned char bytes[128] = {};
    unsigned size = 0;

    bool is_ipv6() const noexcept;
    bool is_loopback() const noexcept;
    std::string host() const; // as digits
    uint16 port() const noexcept;
    void set_port(uint16 port) noexcept;
    std::string text() const; // "127.0.0.1 port 4711"

    // What counts as one neighbour: an IPv4 address, or the network of an IPv6 address (its first 64 bits).
    std::string neighbour() const;
};

// The endpoints of a host, for connections or to listen. Not 0: `reason` says why in words.
int resolve(const char* host, uint16 port, bool to_listen, std::vector<endpoint>& out, std::string& reason);

int listen_at(const endpoint& at, socket& out);
endpoint local_end(const socket& of) noexcept;

// Bytes that the system keeps for a peer that does not read; it would keep megabytes.
inline constexpr int send_buffer_size = 65536;

// would_block: nobody waits there.
int accept_from(const socket& listener, socket& out, endpoint& from);

// Waits until the connection stands or the time is over, which is timed_out.
int connect_to(const endpoint& to, int milliseconds, socket& out);

extern const int would_block;
extern const int timed_out;
// An address or a family that this host does not have.
bool is_not_here(int code) noexcept;
extern const int in_use;

// Up to `size` bytes; *count 0 with a result of 0 is the end.
int receive(const socket& from, char* bytes, std::size_t size, std::size_t* count) noexcept;
int send(const socket& to, const char* bytes, std::size_t size, std::size_t* count) noexcept;

struct watched {
    const socket* what;
    bool for_reading;
    bool for_writing;
    bool ready = false;
};

// Until one of them is ready or the time is over; less than 0 is no limit. False: one of them is not ours any more.
bool wait(std::span<watched> all, int milliseconds);

// Ends a wait from another thread: its socket can be waited for. Any number of wakes are one.
class waker {
public:
    waker(); // throws std::system_error
    void wake() noexcept;
    void take() noexcept; // all wakes so far
    const socket& receiver() const noexcept { return m_receiver; }

private:
    socket m_receiver;
    socket m_sender; // not open: the receiver is connected to itself
};

// A thread that no signal of the process is delivered to, and that ends the process where memory runs out. Throws
// std::system_error.
std::thread start_thread(std::function<void()> run);

} // namespace qor::sockets
