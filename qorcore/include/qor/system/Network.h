// Addresses of hosts, their text forms, and host look-up by name.
#pragma once

#include "qor/glue/binding.h"
#include "qor/system/Interface.h"
#include "qor/system/template/SmartPointer.h"

#include <vector>

class qorString;

// An IPv4 address; the bytes stand in network order.
struct qoraddr_ipv4 {
    uint8 bytes[4]; // 192.0.2.1 is 192, 0, 2, 1

    bool operator==(const qoraddr_ipv4&) const noexcept = default;
};

// An IPv6 address; the bytes stand in network order.
struct qoraddr_ipv6 {
    uint8 bytes[16]; // 2001:db8::1 is 0x20, 0x01, 0x0d, 0xb8, ... 1

    bool operator==(const qoraddr_ipv6&) const noexcept = default;
};

// An address of an interface, and the length of its network prefix in bits.
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

// The protocol that an address belongs to.
enum class qorAddressFamily : uint32 {
    none = 0, // no address
    ipv4 = 4,
    ipv6 = 6,
};

// The address of a host. Only the member named by `family` is used; the other one is zero.
struct qorHostAddress {
    qorAddressFamily family = qorAddressFamily::none; // selects one of the two
    qoraddr_ipv4 ipv4{};                              // used if the family is ipv4
    qoraddr_ipv6 ipv6{};                              // used if the family is ipv6

    // For IPv6 addresses that are only valid on one link: the index of this host's interface on that link. 0 if the
    // address needs no scope.
    uint32 scope = 0;

    bool operator==(const qorHostAddress&) const noexcept = default;
};

// Replaces the content of `out` by the text of an address: "192.0.2.1".
inline void qorAddressToString(const qoraddr_ipv4& address, qorString& out) noexcept {
    qor::glue::qorAddressToString_ipv4(address, out);
}

// The same for IPv6, in the shortest form and in lower case: "2001:db8::1". An embedded IPv4 address is written as one:
// "::ffff:192.0.2.1". A non-zero scope follows: the name of the interface ("%eth0"), or its number ("%3") on Windows,
// for an interface without a name and for an address that is not link-local. The text can be looked up again.
inline void qorAddressToString(const qoraddr_ipv6& address, uint32 scope, qorString& out) noexcept {
    qor::glue::qorAddressToString_ipv6(address, scope, out);
}

// The same for either family; the text is empty if no family is set. If `with_scope` is false, the scope is left out,
// because it means nothing on another host.
inline void qorAddressToString(const qorHostAddress& address, bool with_scope, qorString& out) noexcept {
    qor::glue::qorAddressToString_host(address, with_scope, out);
}

// Parses the text of an address as the system does: with a scope ("fe80::1%eth0"), and IPv4 in any form that the system
// accepts ("127.1" on POSIX). Looks nothing up. Returns false and leaves `out` unchanged if the text is not an address
// (qorError_invalid_argument).
inline bool qorStringToAddress(const char* text, qorHostAddress& out) noexcept {
    return qor::glue::qorStringToAddress(text, out);
}

// The result of a look-up. The object is immutable; any thread may use it.
class IQORHostAddressList : public IQORInterface {
public:
    // The number of addresses, at least one.
    virtual uint32 GetCount() noexcept = 0;

    // Gets the address at an index from 0. Returns false and leaves `out` unchanged if there is no such index.
    virtual bool GetAddress(uint32 index, qorHostAddress& out) noexcept = 0;

protected:
    ~IQORHostAddressList() = default;
};

// Looks up the addresses of a host, given by its name or by an address, with the system's own resolver. They come in
// the resolver's order, the best one to connect to first. Each address appears once, even one that this host cannot
// reach. The name is UTF-8; an international name is looked up in its ASCII form. May take as long as the system waits
// for name servers. Returns false and leaves *out unchanged on failure. The last error is then qorError_no_such_host,
// qorError_host_without_address (the host exists, but has no address), qorError_no_answer (try again later),
// qorError_no_network (this host has no network) or, for anything else, qorError_lookup_failed. Any thread.
[[nodiscard]] inline bool qorLookupHost(const char* name, IQORHostAddressList** out) noexcept {
    return qor::glue::qorLookupHost(name, out);
}

// Gets the name of a host in the domain name system, by the system's own resolver.
//
// For a name, this is the canonical one: the name at which aliases of the host end (the first one of a line in a hosts
// file, the end of a chain of CNAME records). For a null pointer, it is that of this host, found by its own name. For
// the text of an address, and for an address, it is the name that whoever runs the network of that address has given it
// (reverse look-up, PTR records): the name of a peer for logs, but no proof of who the peer is.
//
// International names are given in their ASCII form ("xn--..."). May take as long as the system waits for name servers,
// as qorLookupHost does (Linux: `options timeout` and `attempts` in resolv.conf). Returns false and leaves `out`
// unchanged on failure. The last error is then one of those of qorLookupHost, or qorError_address_without_name. An
// answer that is no host name (with blanks or control characters) is qorError_lookup_failed. Any thread.
[[nodiscard]] inline bool qorGetHostDNSName(const char* name, qorString& out) noexcept {
    return qor::glue::qorGetHostDNSName(name, nullptr, out);
}
[[nodiscard]] inline bool qorGetHostDNSName(const qorHostAddress& address, qorString& out) noexcept {
    return qor::glue::qorGetHostDNSName(nullptr, &address, out);
}

// How far an address reaches.
enum class qorAddressScope : uint32 {
    host = 1, // loopback: this host only (127.0.0.0/8, ::1)
    link = 2, // link-local: the hosts on the same link (169.254.0.0/16, fe80::/10)
    wide = 3, // further; whether as far as the whole internet, routers decide
};

// An address of this host.
struct qorLocalAddress {
    qorHostAddress address{};                      // with the scope that it needs
    uint8 prefix = 0;                              // the length of its network prefix in bits
    uint32 interface_index = 0;                    // IQORNetInterface::GetIndex of its interface
    qorAddressScope scope = qorAddressScope::wide; // how far it reaches

    // Whether only this host can use it.
    bool IsLoopback() const noexcept { return scope == qorAddressScope::host; }
    // Whether only the hosts on the same link can use it.
    bool IsLinkLocal() const noexcept { return scope == qorAddressScope::link; }
    bool operator==(const qorLocalAddress&) const noexcept = default;
};

// The addresses of this host, as a snapshot. The object is immutable; any thread may use it.
class IQORLocalAddressList : public IQORInterface {
public:
    // The number of addresses; 0 on a host without an address.
    virtual uint32 GetCount() noexcept = 0;

    // Gets the address at an index from 0. Returns false and leaves `out` unchanged if there is no such index.
    virtual bool GetAddress(uint32 index, qorLocalAddress& out) noexcept = 0;

protected:
    ~IQORLocalAddressList() = default;
};

// Lists the addresses of this host's interfaces as they are now: in the order of the interfaces, the IPv4 addresses of
// each first. Includes those of interfaces that are down. Two interfaces may have the same address. Uses the module
// qor-network like qorEnumerateNetInterfaces. Returns false and leaves *out unchanged on failure (last error).
[[nodiscard]] inline bool qorGetLocalAddresses(IQORLocalAddressList** out) noexcept {
    return qor::glue::qorGetLocalAddresses(out);
}
// The same in a vector, whose content is replaced. Throws std::bad_alloc.
[[nodiscard]] inline bool qorGetLocalAddresses(std::vector<qorLocalAddress>& out) {
    zetSmartPointer<IQORLocalAddressList> list;
    if (!qor::glue::qorGetLocalAddresses(list.Out()))
        return false;
    out.resize(list->GetCount());
    for (uint32 i = 0; i < out.size(); ++i)
        list->GetAddress(i, out[i]);
    return true;
}
