// Inside the module qor-openssl: what counts as one on the other side of a connection. All users of a host share its
// loopback addresses, so that an address says nothing there; the system knows whose a socket is.
#pragma once

#include "sockets.h"

#include <string>

namespace qor::sockets {

struct source {
    std::string key;  // equal for all that count as one
    std::string text; // for people: address and port, and the user where there is one
};

// The source of a connection from `from` to `here`, while it stands.
source source_of(const endpoint& from, const endpoint& here);

// The user whose socket of this host it is, as digits, or on Windows as a text of his identifier. False: it is a socket
// of another host, or nobody's any more, or the system does not tell.
bool owner_of(const endpoint& from, const endpoint& here, std::string& user);

} // namespace qor::sockets
