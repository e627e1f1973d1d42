// Sockets with an abstract name, which is no file that could be left behind.
#pragma once

#include <string>
#include <sys/types.h>

namespace qor::record {

// Nonblocking. -1: errno says why.
int listen_at(const std::string& name);
int connect_to(const std::string& name);

// The process at the other end. False: it is unknown.
struct peer {
    pid_t process;
    uid_t user;
};
bool peer_of(int connection, peer& found);

// The next connection. -1: nobody is waiting.
int accept_at(int socket);
// One message of at most `size` bytes, within a second; empty: nothing came.
std::string receive(int connection, std::size_t size);
bool send_text(int connection, const std::string& text);
bool send_descriptor(int connection, int descriptor);

} // namespace qor::record
