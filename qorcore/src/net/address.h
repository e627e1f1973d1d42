// Inside the library: addresses as text, and the system's scope names.
#pragma once

#include "qor/qor.h"

#include <string>
#include <string_view>

namespace qor::net {

std::string to_text(const qoraddr_ipv4& address);

// Appends "%" and the scope if the scope is not 0.
std::string to_text(const qoraddr_ipv6& address, uint32 scope);

// Returns the name of the interface with this index, in the form that the system's resolver accepts. Empty if the
// interface has no name.
std::string scope_name(uint32 scope);
// The other way round; 0 if there is no such interface.
uint32 scope_index(const std::string& name);

// Whether the address is valid on a single link only: fe80::/10, or multicast within a node or a link.
bool is_link_local(const qoraddr_ipv6& address) noexcept;

// Take the one form of an address that all systems read alike: four decimal numbers without leading zeros, or groups of
// hexadecimal digits without a scope. Return false and leave `out` unchanged if the text is no such address.
bool from_text(std::string_view text, qoraddr_ipv4& out) noexcept;
bool from_text(std::string_view text, qoraddr_ipv6& out) noexcept;

// The same for either, with a scope. `bad_scope`, if not null, becomes true if it is only the scope that is wrong.
bool from_text(std::string_view text, qorHostAddress& out, bool* bad_scope = nullptr);

} // namespace qor::net
