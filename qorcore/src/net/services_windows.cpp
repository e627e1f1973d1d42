#include "net/services.h"

#include "net/winsock_windows.h"
#include "platform/wide_windows.h"

#include <algorithm>

// The older function for services has no wide form.
bool qor::net::port_of_service(const std::string& name, uint16& out) {
    const winsock& system = the_winsock();
    std::wstring wide;
    // The system would also take a number, which is no name.
    const auto is_letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    if (system.failure != 0 || std::ranges::none_of(name, is_letter) || !platform::to_wide(name, wide))
        return false;
    ADDRINFOW hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    ADDRINFOW* list = nullptr;
    if (system.GetAddrInfoW(nullptr, wide.c_str(), &hints, &list) != 0)
        return false;
    // Without a host, the address is the loopback's.
    sockaddr_in address{};
    std::memcpy(&address, list->ai_addr, sizeof address);
    system.FreeAddrInfoW(list);
    out = network_order(address.sin_port);
    return true;
}
