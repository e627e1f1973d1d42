// Inside the library: texts of addresses, and the system's names of scopes.
#pragma once

#include "qor/qor.h"

#include <string>

namespace qor::net {

std::string to_text(const qoraddr_ipv4& address);

// With "%" and the scope, where it is not 0.
std::string to_text(const qoraddr_ipv6& address, uint32 scope);

// The name of the interface with this index, as the system's resolver reads it; empty: it has none.
std::string scope_name(uint32 scope);

} // namespace qor::net
