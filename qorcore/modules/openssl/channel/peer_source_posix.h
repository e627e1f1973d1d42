// Inside the module qor-openssl: two ways to ask the kernel whose a socket is.
#pragma once

#include "sockets.h"

#include <cstdint>

namespace qor::sockets {

enum class owner_answer { found, nobody, cannot_ask };

// By a question of netlink for this one socket.
owner_answer owner_by_question(const endpoint& from, const endpoint& here, std::uint32_t& user);

// By the lists of all sockets in a folder, "/proc/net".
owner_answer owner_by_list(const char* folder, const endpoint& from, const endpoint& here, std::uint32_t& user);

} // namespace qor::sockets
