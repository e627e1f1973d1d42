// Inside the Windows half of the library: the functions of the system's socket library, which is loaded on first use.
#pragma once

#include "qor/qor.h"

#include <winsock2.h>
// Must follow winsock2.h: windows.h would otherwise include the first version of the socket header.
#include "platform/system_library_windows.h"
#include <ws2tcpip.h>

#include "net/socket_address.h"

namespace qor::net {

// Never unloaded, like every system library that we load.
struct winsock {
#define QOR_WINSOCK(function) decltype(::function)* function = nullptr;
#include "net/winsock_functions_windows.h"
#undef QOR_WINSOCK

    int failure = 0; // 0, or the reason why none of them can be used
};

const winsock& the_winsock() noexcept;

} // namespace qor::net
