#include "naming_posix.h"

#include <algorithm>
#include <linux/if_arp.h>
#include <linux/if_tun.h>
#include <string_view>

namespace {

struct kind_name {
    std::string_view kind;
    const char* text;
};

// Interfaces made by software, by the kernel's name for their kind.
constexpr kind_name kinds[] = {
    {"bareudp", "Tunnel"},
    {"batadv", "Mesh"},
    {"bond", "Bond"},
    {"bridge", "Bridge"},
    {"dummy", "Dummy"},
    {"erspan", "Tunnel"},
    {"geneve", "GENEVE"},
    {"gre", "Tunnel"},
    {"gretap", "Tunnel"},
    {"gtp", "Tunnel"},
    {"hsr", "Ring"},
    {"ifb", "IFB"},
    {"ip6erspan", "Tunnel"},
    {"ip6gre", "Tunnel"},
    {"ip6gretap", "Tunnel"},
    {"ip6tnl", "Tunnel"},
    {"ipip", "Tunnel"},
    {"ipvlan", "IPVLAN"},
    {"ipvtap", "IPVLAN"},
    {"macsec", "MACsec"},
    {"macvlan", "MACVLAN"},
    {"macvtap", "MACVLAN"},
    {"netdevsim", "Simulated"},
    {"nlmon", "Monitor"},
    {"ppp", "PPP"},
    {"sit", "Tunnel"},
    {"team", "Team"},
    {"vcan", "CAN"},
    {"veth", "Virtual Ethernet"},
    {"vlan", "VLAN"},
    {"vrf", "VRF"},
    {"vti", "Tunnel"},
    {"vti6", "Tunnel"},
    {"vxcan", "CAN"},
    {"vxlan", "VXLAN"},
    {"wireguard", "WireGuard"},
    {"wwan", "Mobile broadband"},
    {"xfrm", "Tunnel"},
};

// Makes a text fit on one line: text after a line end would look like another line of the list.
std::string one_line(std::string text) {
    std::ranges::replace(text, '\n', ' ');
    return text;
}

// An administrator may choose any alias; one of blanks only is not a name.
bool is_blank(const std::string& text) { return text.find_first_not_of(" \t\r\n") == text.npos; }

// Returns a name that a person chose; empty if nobody chose one. The display name is then made of kind and name.
std::string given_name(const network::link_row& link) {
    if (!is_blank(link.alias))
        return link.alias;
    return link.alternative_names.empty() ? "" : link.alternative_names.front();
}

} // namespace

const char* network::kind_of(const link_row& link, bool is_wireless) noexcept {
    if (is_wireless)
        return "Wi-Fi";
    if (link.kind == "tun")
        return link.tun_type == IFF_TAP || (!link.tun_type && link.type == ARPHRD_ETHER) ? "TAP" : "TUN";
    if (const auto found = std::ranges::find(kinds, link.kind, &kind_name::kind); found != std::end(kinds))
        return found->text;
    switch (link.type) {
    case ARPHRD_LOOPBACK:
        return "Loopback";
    case ARPHRD_ETHER:
        return "Ethernet";
    case ARPHRD_INFINIBAND:
        return "InfiniBand";
    case ARPHRD_CAN:
        return "CAN";
    case ARPHRD_PPP:
    case ARPHRD_SLIP:
    case ARPHRD_CSLIP:
        return "PPP";
    case ARPHRD_IEEE1394:
        return "FireWire";
    case ARPHRD_IEEE80211:
    case ARPHRD_IEEE80211_PRISM:
    case ARPHRD_IEEE80211_RADIOTAP:
        return "Wi-Fi";
    case ARPHRD_IEEE802154:
        return "IEEE 802.15.4";
    case ARPHRD_TUNNEL:
    case ARPHRD_TUNNEL6:
    case ARPHRD_SIT:
    case ARPHRD_IPGRE:
    case ARPHRD_IP6GRE:
        return "Tunnel";
    default:
        return "Network";
    }
}

std::string network::display_name(const link_row& link, const char* kind) {
    const std::string given = given_name(link);
    return one_line(!given.empty() ? given : kind + (" (" + link.name + ")"));
}

std::string network::description(const link_row& link, const char* kind, const std::optional<device_facts>& device) {
    std::string text;
    const auto add = [&text](const char* before, const std::string& part) {
        if (!part.empty())
            text += (text.empty() ? "" : before) + part;
    };
    if (device) {
        add("", device->maker);
        add(" ", device->model);
    }
    if (text.empty())
        text = kind;
    add(", driver ", device ? device->driver : link.kind);
    if (device)
        add(", ", device->place);
    const std::string display = given_name(link);
    for (const std::string& name : link.alternative_names)
        if (name != display)
            add(", also ", name);
    return one_line(text);
}
