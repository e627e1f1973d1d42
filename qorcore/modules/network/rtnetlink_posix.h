// Reads links, addresses, default routes and next hops from the kernel.
#pragma once

#include "dump_posix.h"

#include <functional>
#include <memory>

namespace network {

// A conversation with the kernel over one socket. Operations return 0 or an errno and throw only std::bad_alloc.
class conversation {
public:
    conversation() = default;
    conversation(const conversation&) = delete;
    conversation& operator=(const conversation&) = delete;
    virtual ~conversation() = default;

    virtual int open() = 0;
    virtual uint32 port() = 0;
    virtual int send(std::span<const uint8> request) = 0;

    // Receives the next datagram into a buffer of any size. ENOSPC means that the datagram was longer than the buffer
    // and is lost.
    virtual int receive(std::span<uint8> buffer, std::size_t& length) = 0;
};

// The number of attempts. Each one starts a new conversation after something changed during the previous one.
inline constexpr int dump_attempts = 30;

// Reads all tables. On false, the last error gives the reason.
bool read_dumps(const std::function<std::unique_ptr<conversation>()>& begin, dump_tables& out);

// Returns a conversation with the kernel of this host.
std::unique_ptr<conversation> talk_to_kernel();

} // namespace network
