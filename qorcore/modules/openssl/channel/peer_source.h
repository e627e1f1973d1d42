// Inside the module qor-openssl: identifies the source of a connection. All users of a host share its loopback
// addresses, so the address does not distinguish them; but the system knows the owner of a socket.
#pragma once

#include "sockets.h"

#include <string>

namespace qor::sockets {

struct source {
    std::string key;  // equal for all connections of a source
    std::string text; // for people: address and port, and the user if known
};

// Returns the source of a connection from `from` to `here`. Call this while the connection exists.
source source_of(const endpoint& from, const endpoint& here);

// Returns the owner of a socket of this host: the number of the user, or on Windows the text of the SID. Returns false
// if the socket belongs to another host or to nobody any more, or if the system does not report the owner.
bool owner_of(const endpoint& from, const endpoint& here, std::string& user);

} // namespace qor::sockets
