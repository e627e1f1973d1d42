// The interfaces of this host, from the IP Helper library.
#include "common/system_reason.h"
#include "interface_list.h"

#include <winsock2.h> // before the two below
#include <ws2tcpip.h>

#include <iphlpapi.h>

#include <algorithm>
#include <cstring>

namespace {

using network::interface_facts;

// The number of calls with an enlarged buffer: the list may have grown since the system reported its size.
constexpr int attempts = 10;

std::string utf8(const wchar_t* text) {
    qorString converted;
    if (text != nullptr)
        converted.SetUCS2(reinterpret_cast<const uint16*>(text));
    return {converted.Text(), converted.Length()};
}

template <class SOCKET_ADDRESS_TYPE>
const SOCKET_ADDRESS_TYPE& as(const SOCKET_ADDRESS& address) {
    return *reinterpret_cast<const SOCKET_ADDRESS_TYPE*>(address.lpSockaddr);
}

// Calls `take` for each address or gateway in a linked list of an adapter.
template <class ROW, class TAKE>
void each(const ROW* row, TAKE take) {
    for (; row != nullptr; row = row->Next)
        if (row->Address.lpSockaddr != nullptr)
            take(*row, row->Address.lpSockaddr->sa_family);
}

qoraddr_ipv4 ipv4_of(const SOCKET_ADDRESS& address) {
    qoraddr_ipv4 out;
    std::memcpy(out.bytes, &as<sockaddr_in>(address).sin_addr, sizeof out.bytes);
    return out;
}

interface_facts facts_of(const IP_ADAPTER_ADDRESSES& adapter) {
    interface_facts facts;
    // If both numbers are set, they are equal. An adapter with IPv6 only has no number for IPv4.
    facts.index = adapter.IfIndex != 0 ? adapter.IfIndex : adapter.Ipv6IfIndex;
    facts.name = adapter.AdapterName;
    facts.description = utf8(adapter.Description);
    facts.display_name = utf8(adapter.FriendlyName);
    facts.hardware_address.assign(adapter.PhysicalAddress,
                                  adapter.PhysicalAddress +
                                      std::min<ULONG>(adapter.PhysicalAddressLength, sizeof adapter.PhysicalAddress));
    each(adapter.FirstUnicastAddress, [&](const IP_ADAPTER_UNICAST_ADDRESS& row, int family) {
        if (family == AF_INET) {
            facts.ipv4.push_back({ipv4_of(row.Address), row.OnLinkPrefixLength});
        } else if (family == AF_INET6) {
            qorNetAddress6 address{{}, row.OnLinkPrefixLength, 0};
            std::memcpy(address.address.bytes, &as<sockaddr_in6>(row.Address).sin6_addr, sizeof address.address.bytes);
            address.scope = network::scope_of(address.address, facts.index);
            facts.ipv6.push_back(address);
        }
    });
    // The list starts with the best gateway.
    each(adapter.FirstGatewayAddress, [&](const IP_ADAPTER_GATEWAY_ADDRESS& row, int family) {
        if (family == AF_INET && !facts.gateway)
            facts.gateway = qorNetAddress4{ipv4_of(row.Address), 32};
    });
    return facts;
}

} // namespace

bool network::read_interfaces(std::vector<interface_facts>& out) {
    constexpr ULONG flags = GAA_FLAG_INCLUDE_GATEWAYS | GAA_FLAG_INCLUDE_ALL_INTERFACES | GAA_FLAG_SKIP_ANYCAST |
                            GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER;
    ULONG size = 32 * 1024;
    std::vector<ULONGLONG> room;
    ULONG code = ERROR_BUFFER_OVERFLOW;
    for (int left = attempts; code == ERROR_BUFFER_OVERFLOW && left != 0; --left) {
        room.resize((size + sizeof room[0] - 1) / sizeof room[0]);
        code = GetAdaptersAddresses(AF_UNSPEC, flags, nullptr, reinterpret_cast<IP_ADAPTER_ADDRESSES*>(room.data()),
                                    &size);
    }
    out.clear();
    if (code == ERROR_BUFFER_OVERFLOW) {
        qorSetLastError(qorError_interfaces_change);
        return false;
    }
    if (code == ERROR_NO_DATA)
        return true;
    if (code != ERROR_SUCCESS) {
        qorSetLastError(qorError_system, "GetAdaptersAddresses",
                        qor::modules::system_reason(static_cast<int>(code)).c_str());
        return false;
    }
    for (auto* adapter = reinterpret_cast<const IP_ADAPTER_ADDRESSES*>(room.data()); adapter != nullptr;
         adapter = adapter->Next)
        out.push_back(facts_of(*adapter));
    std::ranges::stable_sort(out, {}, &interface_facts::index);
    return true;
}
