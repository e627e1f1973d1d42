// Asking the kernel for its links, addresses, default routes and next hops.
#pragma once

#include "dump_posix.h"

#include <functional>
#include <memory>

namespace network {

// One socket's talk with the kernel. An operation returns 0 or an errno; nothing here throws but std::bad_alloc.
class conversation {
public:
    conversation() = default;
    conversation(const conversation&) = delete;
    conversation& operator=(const conversation&) = delete;
    virtual ~conversation() = default;

    virtual int open() = 0;
    virtual uint32 port() = 0;
    virtual int send(std::span<const uint8> request) = 0;

    // The next datagram, into a buffer of whatever size. ENOSPC: it is longer than the buffer, and lost.
    virtual int receive(std::span<uint8> buffer, std::size_t& length) = 0;
};

// So often it begins again, each time in a new conversation, when something changes while it reads.
inline constexpr int dump_attempts = 30;

// Reads all. False: the last error says why.
bool read_dumps(const std::function<std::unique_ptr<conversation>()>& begin, dump_tables& out);

// The conversation with the kernel of this host.
std::unique_ptr<conversation> talk_to_kernel();

} // namespace network
