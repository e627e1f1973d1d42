// Addresses of hosts, their text forms, and the look-up of hosts by name.
#pragma once

#include "qor/glue/binding.h"
#include "qor/system/Interface.h"

class qorString;

// An IPv4 address: its bytes in the order in which they are written and sent.
struct qoraddr_ipv4 {
    uint8 bytes[4]; // 192.0.2.1 is 192, 0, 2, 1

    bool operator==(const qoraddr_ipv4&) const noexcept = default;
};

// An IPv6 address, in the same order.
struct qoraddr_ipv6 {
    uint8 bytes[16]; // 2001:db8::1 is 0x20, 0x01, 0x0d, 0xb8, ... 1

    bool operator==(const qoraddr_ipv6&) const noexcept = default;
};

// Addresses of an interface: the address, and how many of its bits, from the left, its network has in common.
struct qorNetAddress4 {
    qoraddr_ipv4 address; // of the interface
    uint8 prefix;         // 0 to 32
};

// The same for IPv6.
struct qorNetAddress6 {
    qoraddr_ipv6 address; // of the interface
    uint8 prefix;         // 0 to 128
    uint32 scope;         // as in qorHostAddress
};

// Which protocol an address belongs to.
enum class qorAddressFamily : uint32 {
    none = 0, // no address
    ipv4 = 4,
    ipv6 = 6,
};

// The address of a host. Only the member that `family` names counts; the other one is zero.
struct qorHostAddress {
    qorAddressFamily family = qorAddressFamily::none; // which of the two counts
    qoraddr_ipv4 ipv4{};                              // where the family is ipv4
    qoraddr_ipv6 ipv6{};                              // where the family is ipv6

    // IPv6 addresses that are valid on one link only: the index of this host's interface to that link. 0 where the
    // address needs none.
    uint32 scope = 0;

    bool operator==(const qorHostAddress&) const noexcept = default;
};

// The text of an address, in place of what `out` held: "192.0.2.1".
inline void qorAddressToString(const qoraddr_ipv4& address, qorString& out) noexcept {
    qor::glue::qorAddressToString_ipv4(address, out);
}

// "2001:db8::1": the shortest form, in small letters, an embedded IPv4 address as one: "::ffff:192.0.2.1". A scope
// other than 0 follows as "%eth0", or as "%3" where the interface has no name: always numeric on Windows, and for
// addresses that are not link-local. What it makes can be looked up again.
inline void qorAddressToString(const qoraddr_ipv6& address, uint32 scope, qorString& out) noexcept {
    qor::glue::qorAddressToString_ipv6(address, scope, out);
}

// Either of them; no text at all where the family is none. `with_scope`: false leaves the scope out, for another host
// has interfaces of its own.
inline void qorAddressToString(const qorHostAddress& address, bool with_scope, qorString& out) noexcept {
    qor::glue::qorAddressToString_host(address, with_scope, out);
}

// What a text says that is an address, as the system reads it: with its scope ("fe80::1%eth0"), and an IPv4 address in
// any form that it knows ("127.1" on POSIX). Nothing is looked up. False: it is none, and `out` is as it was.
inline bool qorStringToAddress(const char* text, qorHostAddress& out) noexcept {
    return qor::glue::qorStringToAddress(text, out);
}

// What a look-up found. The object does not change; it may be used on any thread.
class IQORHostAddressList : public IQORInterface {
public:
    // How many addresses there are; at least one.
    virtual uint32 GetCount() noexcept = 0;

    // The address at an index from 0. False: there is no such index, and `out` is as it was.
    virtual bool GetAddress(uint32 index, qorHostAddress& out) noexcept = 0;

protected:
    ~IQORHostAddressList() = default;
};

// The addresses of a host, by its name or by one of its addresses, as the system's own resolver finds them and in its
// order: the best one to connect to first. Each address comes once, also those that this host has no way to. The name
// is UTF-8; an international one is looked up in its ASCII form. May take as long as the system waits for name servers.
// False: *out is as it was, and the last error tells what there is not: such a host (qorError_no_such_host), an address
// of it (qorError_host_without_address), an answer just now (qorError_no_answer), any network at all
// (qorError_no_network); qorError_lookup_failed is all else. Any thread.
[[nodiscard]] inline bool qorLookupHost(const char* name, IQORHostAddressList** out) noexcept {
    return qor::glue::qorLookupHost(name, out);
}
