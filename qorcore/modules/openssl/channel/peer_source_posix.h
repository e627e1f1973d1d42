// Inside the module qor-openssl: two ways to ask the kernel for the owner of a socket.
#pragma once

#include "sockets.h"

#include <cstdint>

namespace qor::sockets {

enum class owner_answer { found, nobody, cannot_ask };

// Asks through netlink for this one socket.
owner_answer owner_by_question(const endpoint& from, const endpoint& here, std::uint32_t& user);

// Searches the lists of all sockets in a folder, "/proc/net".
owner_answer owner_by_list(const char* folder, const endpoint& from, const endpoint& here, std::uint32_t& user);

} // namespace qor::sockets
