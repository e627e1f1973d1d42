#include "net/services.h"

#include "net/winsock_windows.h"

// The result belongs to the calling thread.
bool qor::net::port_of_service(const std::string& name, uint16& out) {
    const winsock& system = the_winsock();
    if (system.failure != 0)
        return false;
    const servent* const found = system.getservbyname(name.c_str(), "tcp");
    if (found == nullptr)
        return false;
    out = network_order(static_cast<uint16>(found->s_port));
    return true;
}
