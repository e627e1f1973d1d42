#include "peer_source.h"

#include <algorithm>

qor::sockets::source qor::sockets::source_of(const endpoint& from, const endpoint& here) {
    source made{from.neighbour(), from.text()};
    // The text may contain the name of a network interface, which may have any characters.
    std::replace_if(
        made.text.begin(), made.text.end(), [](char c) { return c < ' ' || c > '~' || c == '\''; }, '?');
    std::string user;
    if (owner_of(from, here, user)) {
        made.key = "user " + user;
        made.text += " of user " + user;
    } else if (from.is_loopback()) {
        made.key = "this host";
    }
    return made;
}
