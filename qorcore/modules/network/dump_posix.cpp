#include "dump_posix.h"

#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/if_tun.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <concepts>
#include <cstring>
#include <utility>

namespace {

using network::dump_result;
using network::dump_state;
using network::dump_tables;
using bytes = std::span<const uint8>;

// Data that is shorter than the number counts as 0.
template <class NUMBER>
NUMBER number(bytes from) {
    NUMBER value{};
    if (from.size() >= sizeof value)
        std::memcpy(&value, from.data(), sizeof value);
    return value;
}

// Reads up to the terminator, if there is one.
std::string text(bytes from) { return {from.begin(), std::ranges::find(from, uint8{0})}; }

template <std::size_t SIZE>
bool copy(bytes from, std::array<uint8, SIZE>& to) {
    if (from.size() > SIZE)
        return false;
    std::ranges::copy(from, to.begin());
    return true;
}

// Calls take(type, payload) for each attribute. Stops at the first one that does not fit.
template <class TAKE>
void each_attribute(bytes attributes, TAKE take) {
    const auto* const end = attributes.data() + attributes.size();
    const auto* each = reinterpret_cast<const nlattr*>(attributes.data());
    while (mnl_attr_ok(each, static_cast<int>(end - reinterpret_cast<const uint8*>(each)))) {
        take(mnl_attr_get_type(each),
             bytes{static_cast<const uint8*>(mnl_attr_get_payload(each)), mnl_attr_get_payload_len(each)});
        each = mnl_attr_next(each);
    }
}

// The header of a message's own type, and the attributes after it.
template <class HEADER>
struct parts {
    HEADER header{};
    bytes attributes;
};

template <class HEADER>
bool split(const nlmsghdr* message, parts<HEADER>& out) {
    const bytes payload{static_cast<const uint8*>(mnl_nlmsg_get_payload(message)), mnl_nlmsg_get_payload_len(message)};
    if (payload.size() < sizeof out.header)
        return false;
    out.header = number<HEADER>(payload);
    out.attributes = payload.subspan(std::min(payload.size(), std::size_t{MNL_ALIGN(sizeof out.header)}));
    return true;
}

bool take_link(const nlmsghdr* message, dump_tables& out) {
    parts<ifinfomsg> link;
    if (!split(message, link))
        return false;
    network::link_row row;
    row.index = static_cast<uint32>(link.header.ifi_index);
    row.type = link.header.ifi_type;
    each_attribute(link.attributes, [&](int type, bytes value) {
        switch (type) {
        case IFLA_IFNAME:
            row.name = text(value);
            break;
        case IFLA_IFALIAS:
            row.alias = text(value);
            break;
        case IFLA_ADDRESS:
            row.hardware_address.assign(value.begin(), value.end());
            break;
        case IFLA_PARENT_DEV_NAME:
            row.device = text(value);
            break;
        case IFLA_PARENT_DEV_BUS_NAME:
            row.bus = text(value);
            break;
        case IFLA_PROP_LIST:
            each_attribute(value, [&](int property, bytes name) {
                if (property == IFLA_ALT_IFNAME)
                    row.alternative_names.push_back(text(name));
            });
            break;
        case IFLA_LINKINFO: {
            bytes data;
            each_attribute(value, [&](int part, bytes of_part) {
                if (part == IFLA_INFO_KIND)
                    row.kind = text(of_part);
                else if (part == IFLA_INFO_DATA)
                    data = of_part;
            });
            // The meaning of the data depends on the kind.
            if (row.kind == "tun")
                each_attribute(data, [&](int part, bytes of_part) {
                    if (part == IFLA_TUN_TYPE)
                        row.tun_type = number<uint8>(of_part);
                });
            break;
        }
        default:
            break;
        }
    });
    out.links.push_back(std::move(row));
    return true;
}

bool take_address(const nlmsghdr* message, dump_tables& out) {
    parts<ifaddrmsg> address;
    if (!split(message, address))
        return false;
    const std::size_t size = address.header.ifa_family == AF_INET ? 4 : address.header.ifa_family == AF_INET6 ? 16 : 0;
    if (size == 0)
        return true; // other families are skipped, since they also have addresses
    bytes own;
    bytes peer_or_own;
    each_attribute(address.attributes, [&](int type, bytes value) {
        if (type == IFA_LOCAL)
            own = value;
        else if (type == IFA_ADDRESS)
            peer_or_own = value;
    });
    if (own.empty())
        own = peer_or_own;
    network::address_row row{address.header.ifa_index, address.header.ifa_prefixlen, size == 16, {}};
    if (own.size() != size || !copy(own, row.bytes))
        return false;
    out.addresses.push_back(row);
    return true;
}

bool take_route(const nlmsghdr* message, dump_tables& out) {
    parts<rtmsg> route;
    if (!split(message, route))
        return false;
    uint32 table = route.header.rtm_table;
    network::gateway_row row;
    bytes gateway;
    bytes several;
    each_attribute(route.attributes, [&](int type, bytes value) {
        switch (type) {
        case RTA_TABLE:
            table = number<uint32>(value);
            break;
        case RTA_PRIORITY:
            row.metric = number<uint32>(value);
            break;
        case RTA_OIF:
            row.link = number<uint32>(value);
            break;
        case RTA_NH_ID:
            row.next_hop = number<uint32>(value);
            break;
        case RTA_GATEWAY:
            gateway = value;
            break;
        case RTA_MULTIPATH:
            several = value;
            break;
        default:
            break;
        }
    });
    // Routes for marked traffic do not apply to everybody, and routes that the kernel derived from others are not
    // settings.
    if (table != RT_TABLE_MAIN || route.header.rtm_family != AF_INET || route.header.rtm_dst_len != 0 ||
        route.header.rtm_tos != 0 || route.header.rtm_type != RTN_UNICAST ||
        (route.header.rtm_flags & RTM_F_CLONED) != 0)
        return true;
    const auto add = [&](bytes address, unsigned flags) {
        if (address.size() == row.gateway.size() && (flags & RTNH_F_DEAD) == 0 && copy(address, row.gateway))
            out.gateways.push_back(row);
    };
    if (gateway.empty() && several.empty()) {
        if (row.next_hop != 0)
            out.gateways.push_back(row);
        return true;
    }
    // The kernel has already resolved the next hop.
    row.next_hop = 0;
    add(gateway, route.header.rtm_flags);
    while (several.size() >= sizeof(rtnexthop)) {
        const auto hop = number<rtnexthop>(several);
        if (hop.rtnh_len < sizeof hop || hop.rtnh_len > several.size())
            return false;
        row.link = static_cast<uint32>(hop.rtnh_ifindex);
        each_attribute(several.first(hop.rtnh_len).subspan(sizeof hop), [&](int type, bytes value) {
            if (type == RTA_GATEWAY)
                add(value, hop.rtnh_flags);
        });
        several = several.subspan(std::min(several.size(), MNL_ALIGN(std::size_t{hop.rtnh_len})));
    }
    return true;
}

bool take_next_hop(const nlmsghdr* message, dump_tables& out) {
    parts<nhmsg> hop;
    if (!split(message, hop))
        return false;
    network::next_hop_row row;
    each_attribute(hop.attributes, [&](int type, bytes value) {
        switch (type) {
        case NHA_ID:
            row.number = number<uint32>(value);
            break;
        case NHA_OIF:
            row.link = number<uint32>(value);
            break;
        case NHA_GATEWAY:
            if (std::array<uint8, 4> gateway{}; value.size() == gateway.size() && copy(value, gateway))
                row.gateway = gateway;
            break;
        case NHA_GROUP:
            for (; value.size() >= sizeof(nexthop_grp); value = value.subspan(sizeof(nexthop_grp)))
                row.group.push_back(number<nexthop_grp>(value).id);
            break;
        default:
            break;
        }
    });
    if ((hop.header.nh_flags & RTNH_F_DEAD) == 0)
        out.next_hops.push_back(std::move(row));
    return true;
}

bool take(const nlmsghdr* message, dump_tables& out) {
    switch (message->nlmsg_type) {
    case RTM_NEWLINK:
        return take_link(message, out);
    case RTM_NEWADDR:
        return take_address(message, out);
    case RTM_NEWROUTE:
        return take_route(message, out);
    case RTM_NEWNEXTHOP:
        return take_next_hop(message, out);
    default:
        return true;
    }
}

// Error messages and end messages both start with an errno, which is negative or 0.
dump_result ending(const nlmsghdr* message, dump_state without_error) {
    constexpr int last_errno = 4095;
    parts<int> status;
    if (!split(message, status) || status.header > 0 || status.header < -last_errno)
        return {dump_state::senseless};
    return status.header == 0 ? dump_result{without_error} : dump_result{dump_state::refused, -status.header};
}

// libmnl alone takes a length of 2 GiB or more for a negative one and accepts it.
bool fits(const nlmsghdr* message, int length) {
    return mnl_nlmsg_ok(message, length) && message->nlmsg_len <= static_cast<uint32>(length);
}

} // namespace

dump_result network::read_datagram(std::span<const uint8> datagram, uint32 sequence, uint32 port, dump_tables& out) {
    const auto* message = reinterpret_cast<const nlmsghdr*>(datagram.data());
    int length = static_cast<int>(datagram.size());
    for (; fits(message, length); message = mnl_nlmsg_next(message, &length)) {
        if (message->nlmsg_seq != sequence || message->nlmsg_pid != port)
            continue;
        if ((message->nlmsg_flags & NLM_F_DUMP_INTR) != 0 || message->nlmsg_type == NLMSG_OVERRUN)
            return {dump_state::interrupted};
        if (message->nlmsg_type == NLMSG_ERROR)
            return ending(message, dump_state::senseless);
        if (message->nlmsg_type == NLMSG_DONE)
            return ending(message, dump_state::done);
        if (!take(message, out))
            return {dump_state::senseless};
    }
    return {length > 0 ? dump_state::senseless : dump_state::more};
}
