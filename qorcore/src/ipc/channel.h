// Inside the library: the seam between messages and the system: sockets on Linux, named pipes on Windows. Nothing here
// waits, except where it says so.
#pragma once

#include "qor/system/Types.h"

#include <cstddef>
#include <memory>
#include <string>

namespace qor::ipc {

enum class io {
    done,
    would_wait,
    ended, // nothing more comes, or nobody reads any more
    failed,
};

// A part of what is read or written.
struct piece {
    char* bytes;
    std::size_t length;
};
inline constexpr unsigned most_pieces = 16;

// The process on the other side.
struct peer {
    std::string user;
    uint64 process = 0;
    bool is_own_user = false;
};

// One end of a connection.
class channel {
public:
    channel() noexcept;
    channel(channel&& other) noexcept;
    channel& operator=(channel&& other) noexcept;
    ~channel();

    bool is_open() const noexcept;
    // done: at least one byte.
    io read(const piece* pieces, unsigned count, std::size_t& got) noexcept;
    // done: at least one byte. One thread at a time.
    io write(const piece* pieces, unsigned count, std::size_t& written) noexcept;
    // Waits until something can be written, at most so many milliseconds. Returns false where only the poller tells
    // that.
    bool wait_writable(uint32 ms) noexcept;
    // The peer reads what was written before, and then the end.
    void shut_writing() noexcept;
    // Both directions end: reading and writing fail from now on, also a wait that is under way.
    void shut() noexcept;
    void close() noexcept;
    // Why it has failed.
    int code() const noexcept;

    struct system;
    std::unique_ptr<system> m_system;
};

// Where peers connect.
class listener {
public:
    listener() noexcept;
    listener(const listener&) = delete;
    listener& operator=(const listener&) = delete;
    ~listener();

    // Sets the last error on failure. `full` is the address in full.
    bool open(const char* address, bool for_any_user, std::string& full);
    // would_wait: nobody is there. failed: try again after a while.
    io accept(channel& out, peer& from) noexcept;
    // Removes what it has left in the file system.
    void close() noexcept;

    struct system;
    std::unique_ptr<system> m_system;
};

// Connects within so many milliseconds, 0: no limit. Sets the last error on failure. `full` is the address in full.
// This one waits, if the server has much to do.
bool connect(const char* address, uint32 ms, channel& out, peer& to, std::string& full);

struct event {
    uint64 key;
    bool can_read;
    bool can_write;
};

// Waits for many channels at once. `wait` belongs to one thread; the others are for any.
class poller {
public:
    poller() noexcept;
    poller(const poller&) = delete;
    poller& operator=(const poller&) = delete;
    ~poller();

    // These return 0 or the system's code.
    int open() noexcept;
    int add(channel& which, uint64 key) noexcept;  // to be told of nothing yet
    int add(listener& which, uint64 key) noexcept; // to be told when somebody is there

    // What is told: that something can be read, or the end; that something can be written.
    int set(channel& which, uint64 key, bool read, bool write) noexcept;
    int set(listener& which, uint64 key, bool read) noexcept;

    // Returns how many events there are, at this time of qorGetTickCounter at the latest; `now` is that of a moment
    // ago.
    unsigned wait(event* out, unsigned most, uint64 until, uint64 now) noexcept;
    void wake() noexcept;

    struct system;
    std::unique_ptr<system> m_system;
};

// Counts the forks between the first process and this one. Objects of another count are not this process's.
unsigned generation() noexcept;

} // namespace qor::ipc
