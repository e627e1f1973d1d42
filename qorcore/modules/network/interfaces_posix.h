// Combines the kernel's data into the interfaces of a host.
#pragma once

#include "device_posix.h"
#include "interface_list.h"

namespace network {

// Returns the interfaces in the order of their numbers. Ignores addresses of links that have disappeared meanwhile.
std::vector<interface_facts> put_together(const dump_tables& tables, device_finder& devices);

} // namespace network
