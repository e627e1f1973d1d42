// The interfaces of a host, put together from what its kernel says of them.
#pragma once

#include "device_posix.h"
#include "interface_list.h"

namespace network {

// In the order of their numbers. Addresses of links that are not there are left out: the links have gone meanwhile.
std::vector<interface_facts> put_together(const dump_tables& tables, device_finder& devices);

} // namespace network
