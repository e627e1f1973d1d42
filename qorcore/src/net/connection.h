// Inside the library: the connections of listeners.
#pragma once

#include "net/sockets.h"

#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace qor::net {

// How many connections of a listener are open, and of which sources. It outlives the listener with the last connection.
class tally {
public:
    // An IPv4 address, or the network of an IPv6 address with the interface of a link-local one.
    using source = std::array<uint8, 13>;
    static source source_of(const qorHostAddress& address) noexcept;

    tally(uint32 limit, uint32 limit_of_source) noexcept : m_limit(limit), m_limit_of_source(limit_of_source) {}

    // Counts a connection as accepted, or as turned away, which is a false result.
    bool enter(const source& from);
    void leave(const source& from) noexcept;
    void pause() noexcept;
    qorIPPortCounts counts() const noexcept;

private:
    const uint32 m_limit;
    const uint32 m_limit_of_source;
    mutable std::mutex m_lock;
    std::map<source, uint32> m_open;
    qorIPPortCounts m_counts;
};

// Where an endpoint is, for people: "192.0.2.1 port 80".
std::string to_text(const qorIPEndpoint& at);

// The sockets of all connections that this process has open. A fork waits for its lock; the child closes what it has
// inherited. Never destroyed.
struct open_streams {
    std::mutex lock;
    std::set<const stream*> all;
};
open_streams& the_streams() noexcept;
// In a forked child: closes all, and begins anew. The lock is held, and stays so with what is left behind.
void forget_streams() noexcept;

// Makes a connection with one reference, which owns the stream and its place in the tally. Null: no memory; nothing has
// changed then.
IQORIPConnection* make_connection(stream& taken, const qorIPEndpoint& peer, const qorIPEndpoint& own,
                                  const std::shared_ptr<tally>& counted) noexcept;

} // namespace qor::net
