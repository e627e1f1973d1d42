#include "interfaces_posix.h"

#include "naming_posix.h"
#include "rtnetlink_posix.h"

#include <algorithm>
#include <cstring>
#include <linux/if_arp.h>

namespace {

using network::address_row;
using network::dump_tables;
using network::gateway_row;
using network::interface_facts;
using network::link_row;
using network::next_hop_row;

// False for tunnels whose hardware address, to the kernel, is the IP address of their own end.
bool has_hardware(const link_row& link) {
    switch (link.type) {
    case ARPHRD_TUNNEL:
    case ARPHRD_TUNNEL6:
    case ARPHRD_SIT:
    case ARPHRD_IPGRE:
    case ARPHRD_IP6GRE:
        return false;
    default:
        return true;
    }
}

interface_facts facts_of(const link_row& link, network::device_finder& devices) {
    const std::optional<network::device_facts> device = devices.find(link);
    const char* const kind = network::kind_of(link, device && device->is_wireless);
    interface_facts facts;
    facts.index = link.index;
    facts.name = link.name;
    facts.alternative_names = link.alternative_names;
    facts.display_name = network::display_name(link, kind);
    facts.description = network::description(link, kind, device);
    if (has_hardware(link))
        facts.hardware_address = link.hardware_address;
    return facts;
}

// Returns null if there is no such interface.
interface_facts* find(std::vector<interface_facts>& interfaces, uint32 index) {
    const auto found = std::ranges::lower_bound(interfaces, index, {}, &interface_facts::index);
    return found != interfaces.end() && found->index == index ? &*found : nullptr;
}

void add_address(const address_row& row, interface_facts& to) {
    if (row.is_ipv6) {
        qorNetAddress6 address{{}, row.prefix_length, 0};
        std::memcpy(address.address.bytes, row.bytes.data(), sizeof address.address.bytes);
        address.scope = network::scope_of(address.address, to.index);
        to.ipv6.push_back(address);
    } else {
        qorNetAddress4 address{{}, row.prefix_length};
        std::memcpy(address.address.bytes, row.bytes.data(), sizeof address.address.bytes);
        to.ipv4.push_back(address);
    }
}

// Resolves the number of a next hop: returns one row, or a row for each member of a group. Groups are not nested.
std::vector<gateway_row> resolve(const gateway_row& row, const std::vector<next_hop_row>& hops) {
    if (row.next_hop == 0)
        return {row};
    std::vector<gateway_row> all;
    const auto find_hop = [&hops](uint32 number) { return std::ranges::find(hops, number, &next_hop_row::number); };
    const auto add = [&](uint32 number) {
        if (const auto hop = find_hop(number); hop != hops.end() && hop->gateway)
            all.push_back({hop->link, row.metric, 0, *hop->gateway});
    };
    add(row.next_hop);
    if (const auto hop = find_hop(row.next_hop); hop != hops.end())
        std::ranges::for_each(hop->group, add);
    return all;
}

// Each interface gets the gateway with the lowest metric; among equal ones, the first.
void add_gateways(const dump_tables& tables, std::vector<interface_facts>& interfaces) {
    std::vector<gateway_row> all;
    for (const gateway_row& row : tables.gateways)
        std::ranges::copy(resolve(row, tables.next_hops), std::back_inserter(all));
    std::ranges::stable_sort(all, {}, &gateway_row::metric);
    for (const gateway_row& row : all) {
        interface_facts* const of = find(interfaces, row.link);
        if (of == nullptr || of->gateway)
            continue;
        of->gateway = qorNetAddress4{{}, 32};
        std::memcpy(of->gateway->address.bytes, row.gateway.data(), row.gateway.size());
    }
}

} // namespace

std::vector<interface_facts> network::put_together(const dump_tables& tables, device_finder& devices) {
    std::vector<interface_facts> interfaces;
    interfaces.reserve(tables.links.size());
    for (const link_row& link : tables.links)
        interfaces.push_back(facts_of(link, devices));
    std::ranges::stable_sort(interfaces, {}, &interface_facts::index);
    for (const address_row& row : tables.addresses)
        if (interface_facts* const of = find(interfaces, row.link))
            add_address(row, *of);
    add_gateways(tables, interfaces);
    return interfaces;
}

bool network::read_interfaces(std::vector<interface_facts>& out) {
    dump_tables tables;
    if (!read_dumps(talk_to_kernel, tables))
        return false;
    device_finder devices;
    out = put_together(tables, devices);
    return true;
}
