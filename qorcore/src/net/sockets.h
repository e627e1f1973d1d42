// Inside the library: the seam to the system's sockets, for listeners and the connections that they accept. Codes are
// the system's, 0 for success.
#pragma once

#include "platform/deadline.h"
#include "qor/qor.h"

#include <cstdint>
#include <span>
#include <utility>

namespace qor::net {

using platform::deadline;

// A socket, and what tells it from another one that got its number after the host had closed it.
struct socket_handle {
    std::intptr_t number = -1;
    std::uint64_t identity[2] = {0, 0};

    bool is_open() const noexcept { return number != -1; }
};

// An accepted connection.
struct stream {
    socket_handle socket;
    void* interruption = nullptr; // Windows: the event that ends waits
};

// How an attempt to accept has ended.
enum class acceptance {
    made,
    nothing,   // nobody waits
    gone,      // whoever waited is gone; the next one may be there
    exhausted, // no descriptors or memory are left; who waits goes on waiting
    broken,    // the socket is not ours any more
};

class bell;

class listening_socket {
public:
    listening_socket() noexcept = default;
    listening_socket(listening_socket&& other) noexcept : m_socket(std::exchange(other.m_socket, {})) {}
    listening_socket& operator=(listening_socket&& other) noexcept {
        std::swap(m_socket, other.m_socket);
        return *this;
    }
    ~listening_socket() { close(); }

    // Only for the family of the address. The bell rings on Windows, where sockets are not waited for.
    int open(const qorIPEndpoint& at, uint32 backlog, bell& rung) noexcept;
    qorIPEndpoint local_end() const noexcept;
    acceptance accept(stream& out, qorIPEndpoint& from, qorIPEndpoint& at) noexcept;
    // What is left of the socket when the host has closed it by its number is left alone.
    void close() noexcept;

    const socket_handle& handle() const noexcept { return m_socket; }

private:
    socket_handle m_socket;
};

// What a listening socket is waited for with.
struct watched {
    const listening_socket* socket;
    bool ready = false;
};

// Ends the wait of another thread.
class bell {
public:
    bell() noexcept = default;
    bell(const bell&) = delete;
    bell& operator=(const bell&) = delete;
    ~bell() { close(); }

    // Makes it anew if there is none, or if the host has closed it.
    int open() noexcept;
    void close() noexcept;
    void ring() noexcept;

    // Waits until a socket may have a connection, the bell rings, or the time is over; negative: there is no limit.
    // To be called without a lock.
    void wait(std::span<watched> all, int milliseconds) noexcept;

    // For the listening sockets of Windows.
    void* event() const noexcept { return m_event; }

private:
    socket_handle m_ends[2]; // POSIX: the two of a pipe
    void* m_event = nullptr; // Windows
};

// Whether a code means that this host lacks the address or its family; that the port is taken; that time ran out.
bool is_not_here(int code) noexcept;
bool is_in_use(int code) noexcept;
extern const int timed_out;

// Reads what there is, waiting for it; at the end of the stream `count` is 0.
int receive(const stream& from, void* bytes, uint64 length, const deadline& until, uint64& count) noexcept;
// Writes all; `done` is how much the system has taken.
int send(const stream& to, const void* bytes, uint64 length, const deadline& until, uint64& done) noexcept;
int end_writing(const stream& of) noexcept;

// Ends the waits on other threads, and says goodbye to the peer. From now on, receive and send return at once.
void interrupt(const stream& of) noexcept;
void close(stream& which) noexcept;
// Closes without a word more: the peer gets a reset.
void reset(stream& which) noexcept;
// Leaves the socket to the caller of the framework.
std::intptr_t take(stream& which) noexcept;
// In a forked child: closes the inherited descriptor, and says nothing to the peer.
void forget(const socket_handle& which) noexcept;

} // namespace qor::net
