// Inside the library: addresses as text, and the system's scope names.
#pragma once

#include "qor/qor.h"

#include <string>

namespace qor::net {

std::string to_text(const qoraddr_ipv4& address);

// Appends "%" and the scope if the scope is not 0.
std::string to_text(const qoraddr_ipv6& address, uint32 scope);

// Returns the name of the interface with this index, in the form that the system's resolver accepts. Empty if the
// interface has no name.
std::string scope_name(uint32 scope);

} // namespace qor::net
