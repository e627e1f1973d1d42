// Inside the module qor-openssl, the seam to the system: non-blocking sockets, and threads that do not disturb the
// host. Results are the system's error codes, 0 for success.
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

// The number of forks since the first process. A thread or socket that is older than the last fork belongs to the
// parent.
unsigned fork_count() noexcept;

// Owns a socket. Child processes that run another program do not inherit it, and a forked child closes it at once. A
// closed connection is reported as an error, not as a signal.
class socket {
public:
    socket() noexcept = default;
    explicit socket(std::intptr_t handle); // throws std::bad_alloc after closing the handle
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

    // Returns false if the socket is not open, or if the host has closed its descriptor, for example together with all
    // descriptors unknown to it. The number may now refer to another file, so such a socket must not be read, written
    // or closed.
    bool is_ours() const noexcept;

private:
    std::intptr_t m_handle = -1;
    std::uint64_t m_identity = 0; // identifies the socket behind the number
    unsigned m_forks = 0;
};

// The address of a socket in the system's form.
struct endpoint {
    static constexpr std::size_t port_at = 2, ipv4_at = 4, ipv6_at = 8;

    endpoint() noexcept = default;
    endpoint(const void* address, std::size_t length) noexcept;

    alignas(8) unsigned char bytes[128] = {};
    unsigned size = 0;

    bool is_ipv6() const noexcept;
    bool is_loopback() const noexcept;
    std::string host() const; // in numeric form
    uint16 port() const noexcept;
    void set_port(uint16 port) noexcept;
    std::string text() const; // "127.0.0.1 port 4711"

    // The unit of counting for remote addresses: an IPv4 address, or the network of an IPv6 address (its first 64
    // bits).
    std::string neighbour() const;
};

// Appends the endpoints of a host, for connecting or listening. If the result is not 0, `reason` is its text.
int resolve(const char* host, uint16 port, bool to_listen, std::vector<endpoint>& out, std::string& reason);

int listen_at(const endpoint& at, socket& out);
endpoint local_end(const socket& of) noexcept;

// The number of bytes that the system buffers for a peer that does not read; its default would be megabytes.
inline constexpr int send_buffer_size = 65536;

// Returns would_block if no connection is waiting.
int accept_from(const socket& listener, socket& out, endpoint& from);

// Waits until the connection is made. Returns timed_out if the time runs out.
int connect_to(const endpoint& to, int milliseconds, socket& out);

extern const int would_block;
extern const int timed_out;
// Whether the code means that this host lacks the address or the address family.
bool is_not_here(int code) noexcept;
extern const int in_use;

// Receives up to `size` bytes. A result of 0 with *count 0 means the end of the stream.
int receive(const socket& from, char* bytes, std::size_t size, std::size_t* count) noexcept;
int send(const socket& to, const char* bytes, std::size_t size, std::size_t* count) noexcept;

struct watched {
    const socket* what;
    bool for_reading;
    bool for_writing;
    bool ready = false;
};

// Waits until a socket is ready or the time runs out; a negative time means no limit. Returns false if a socket is not
// ours any more.
bool wait(std::span<watched> all, int milliseconds);

// Ends a wait() from another thread, by a socket that becomes readable. Several wakes count as one.
class waker {
public:
    waker(); // throws std::system_error
    void wake() noexcept;
    void take() noexcept; // resets all wakes so far
    const socket& receiver() const noexcept { return m_receiver; }

private:
    socket m_receiver;
    socket m_sender; // not open if the receiver is connected to itself
};

// Starts a thread that receives no signals of the process and that ends the process if memory runs out. Throws
// std::system_error.
std::thread start_thread(std::function<void()> run);

} // namespace qor::sockets
