// Inside the library: the seam to the system's resolver.
#pragma once

#include "qor/qor.h"

#include <cstring>
#include <string>
#include <vector>

namespace qor::net {

struct lookup_failure {
    qorErrorNumber number;
    std::string reason; // for qorError_lookup_failed only
};

enum class names { all, numeric_only };

// Asks the system's resolver and appends the addresses to `out` in the resolver's order; an address may occur twice.
// Returns false and appends nothing on failure. Thread-safe.
bool resolve(const char* name, names which, std::vector<qorHostAddress>& out, lookup_failure& failure);

// The canonical name of a host; empty if the resolver has none. Failures like those of resolve. Thread-safe.
bool canonical_name(const char* name, std::string& out, lookup_failure& failure);

// The name that the network of an address has given it. Thread-safe.
bool name_of(const qorHostAddress& address, std::string& out, lookup_failure& failure);

// This host's own name, as it is set, and not looked up.
bool own_name(std::string& out, lookup_failure& failure);

// Appends the addresses in a list of the resolver. IN and IN6 are the system's types of socket addresses.
template <class IN, class IN6, class INFO>
void add_addresses(const INFO* list, int family_of_in, int family_of_in6, std::vector<qorHostAddress>& out) {
    for (; list != nullptr; list = list->ai_next) {
        qorHostAddress address;
        if (list->ai_family == family_of_in) {
            IN in;
            std::memcpy(&in, list->ai_addr, sizeof in);
            address.family = qorAddressFamily::ipv4;
            std::memcpy(address.ipv4.bytes, &in.sin_addr, sizeof address.ipv4.bytes);
        } else if (list->ai_family == family_of_in6) {
            IN6 in6;
            std::memcpy(&in6, list->ai_addr, sizeof in6);
            address.family = qorAddressFamily::ipv6;
            std::memcpy(address.ipv6.bytes, &in6.sin6_addr, sizeof address.ipv6.bytes);
            address.scope = in6.sin6_scope_id;
        } else {
            continue;
        }
        out.push_back(address);
    }
}

} // namespace qor::net
