// Inside the POSIX half of messages: where sockets are.
#pragma once

#include <string>

namespace qor::ipc {

// Returns the path of a socket; empty with the last error set if the address is wrong or its folder cannot be used. For
// a server, the private folder of names is made.
std::string socket_path(const char* address, bool for_server);

} // namespace qor::ipc
