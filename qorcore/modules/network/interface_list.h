// Inside the module qor-network: what is known of the interfaces, and the objects that hand it out.
#pragma once

#include "qor/qor.h"

#include <optional>
#include <string>
#include <vector>

namespace network {

struct interface_facts {
    uint32 index = 0;
    std::string name;
    std::string description;
    std::string display_name;
    std::vector<std::string> alternative_names;
    std::vector<uint8> hardware_address;
    std::vector<qorNetAddress4> ipv4;
    std::optional<qorNetAddress4> gateway;
    std::vector<qorNetAddress6> ipv6;
};

// A list with one reference, of interfaces in the order of their numbers. Throws std::bad_alloc.
IQORNetInterfaceList* make_list(std::vector<interface_facts> interfaces);

// The scope that goes with an address: that of the link where it is one of a link, else 0.
uint32 scope_of(const qoraddr_ipv6& address, uint32 link) noexcept;

// ---- the seam to the system

// All interfaces of the host, in the order of their numbers. False: the last error says why. Throws std::bad_alloc.
bool read_interfaces(std::vector<interface_facts>& out);

} // namespace network
