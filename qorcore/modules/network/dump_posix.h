// What rtnetlink says in its dumps: from the bytes of a datagram to tables. No system is asked here.
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
    std::string kind;              // of an interface that software makes: "veth"
    std::optional<uint8> tun_type; // IFF_TUN or IFF_TAP
    std::string bus;               // with `device`: where the hardware is
    std::string device;
};

struct address_row {
    uint32 link = 0;
    uint8 prefix_length = 0;
    bool is_ipv6 = false;
    std::array<uint8, 16> bytes{}; // IPv4: the first four
};

// A default route of the main table, one for each of its next hops.
struct gateway_row {
    uint32 link = 0;
    uint32 metric = 0;
    uint32 next_hop = 0; // not 0: link and gateway are those of this next hop
    std::array<uint8, 4> gateway{};
};

// A next hop that routes name by its number: a gateway, or a group of further next hops.
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
    more,        // the dump goes on in another datagram
    done,        // this was its end
    interrupted, // something changed meanwhile: what was read is worth nothing
    refused,     // the kernel says no
    senseless,   // not what a kernel writes
};

struct dump_result {
    dump_state state;
    int code = 0; // refused: errno
};

// Adds what a datagram says. Messages that answer no request of `sequence` and `port` are passed over. Throws
// std::bad_alloc.
dump_result read_datagram(std::span<const uint8> datagram, uint32 sequence, uint32 port, dump_tables& out);

} // namespace network
