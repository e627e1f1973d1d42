// Inside the module qor-network: facts about the interfaces, and the objects that give clients access to them.
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

// Makes a list of interfaces in the order of their numbers; the caller owns the reference. Throws std::bad_alloc.
IQORNetInterfaceList* make_list(std::vector<interface_facts> interfaces);

// Returns the scope of an address: the link if the address is valid on one link only, otherwise 0.
uint32 scope_of(const qoraddr_ipv6& address, uint32 link) noexcept;

// ---- the seam to the system

// Returns all interfaces of the host in the order of their numbers. On false, the last error gives the reason. Throws
// std::bad_alloc.
bool read_interfaces(std::vector<interface_facts>& out);

} // namespace network
