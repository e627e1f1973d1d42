// Converts rtnetlink dumps from the bytes of datagrams to tables. Makes no system calls.
#pragma once

#include "qor/qor.h"

#include <array>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace network {

struct link_row {
    uint32 index = 0;
    uint16 type = 0; // ARPHRD_...
    std::string name;
    std::string alias;
    std::vector<std::string> alternative_names;
    std::vector<uint8> hardware_address;
    std::string kind;              // for an interface made by software: "veth"
    std::optional<uint8> tun_type; // IFF_TUN or IFF_TAP
    std::string bus;               // with `device`: the place of the hardware
    std::string device;
};

struct address_row {
    uint32 link = 0;
    uint8 prefix_length = 0;
    bool is_ipv6 = false;
    std::array<uint8, 16> bytes{}; // IPv4 uses the first four
};

// A default route of the main table; a route with several next hops has a row for each.
struct gateway_row {
    uint32 link = 0;
    uint32 metric = 0;
    uint32 next_hop = 0; // if not 0, this next hop determines link and gateway
    std::array<uint8, 4> gateway{};
};

// A next hop that routes refer to by its number: a gateway, or a group of other next hops.
struct next_hop_row {
    uint32 number = 0;
    uint32 link = 0;
    std::optional<std::array<uint8, 4>> gateway;
    std::vector<uint32> group;
};

struct dump_tables {
    std::vector<link_row> links;
    std::vector<address_row> addresses;
    std::vector<gateway_row> gateways;
    std::vector<next_hop_row> next_hops;
};

enum class dump_state {
    more,        // the dump continues in another datagram
    done,        // the dump is complete
    interrupted, // something changed meanwhile: discard the tables
    refused,     // the kernel reports an error
    senseless,   // no kernel sends this
};

struct dump_result {
    dump_state state;
    int code = 0; // for `refused`: errno
};

// Adds the content of a datagram to the tables. Skips messages that do not answer the request of `sequence` and `port`.
// Throws std::bad_alloc.
dump_result read_datagram(std::span<const uint8> datagram, uint32 sequence, uint32 port, dump_tables& out);

} // namespace network
