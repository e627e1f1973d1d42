// The addresses of this host are those of its interfaces.
#include "error/error.h"
#include "memory/allocator.h"
#include "net/address.h"
#include "qor/system/template/Object.h"

#include <vector>

namespace {

constexpr char source[] = "qorcore/src/net/local_addresses";

class local_address_list final : public qor::object<IQORLocalAddressList> {
public:
    explicit local_address_list(std::vector<qorLocalAddress> addresses) noexcept
        : object("qorcore.local_address_list", "IQORLocalAddressList"), m_addresses(std::move(addresses)) {}

    uint32 GetCount() noexcept override { return static_cast<uint32>(m_addresses.size()); }

    bool GetAddress(uint32 index, qorLocalAddress& out) noexcept override {
        if (index >= m_addresses.size()) {
            qor::error::set(qorError_invalid_argument,
                            {"IQORLocalAddressList::GetAddress", std::to_string(index).c_str()});
            return false;
        }
        out = m_addresses[index];
        return true;
    }

private:
    const std::vector<qorLocalAddress> m_addresses;
};

qorAddressScope scope_of(const qoraddr_ipv4& address) noexcept {
    if (address.bytes[0] == 127)
        return qorAddressScope::host;
    return address.bytes[0] == 169 && address.bytes[1] == 254 ? qorAddressScope::link : qorAddressScope::wide;
}

qorAddressScope scope_of(const qoraddr_ipv6& address) noexcept {
    constexpr qoraddr_ipv6 loopback = {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}};
    if (address == loopback)
        return qorAddressScope::host;
    return qor::net::is_link_local(address) ? qorAddressScope::link : qorAddressScope::wide;
}

void add_addresses(IQORNetInterface& of, std::vector<qorLocalAddress>& out) {
    for (uint32 i = 0; i < of.GetIPv4Count(); ++i) {
        qorNetAddress4 found{};
        if (!of.GetIPv4Address(i, found))
            continue;
        qorLocalAddress& made = out.emplace_back();
        made.address.family = qorAddressFamily::ipv4;
        made.address.ipv4 = found.address;
        made.prefix = found.prefix;
        made.scope = scope_of(found.address);
    }
    for (uint32 i = 0; i < of.GetIPv6Count(); ++i) {
        qorNetAddress6 found{};
        if (!of.GetIPv6Address(i, found))
            continue;
        qorLocalAddress& made = out.emplace_back();
        made.address.family = qorAddressFamily::ipv6;
        made.address.ipv6 = found.address;
        made.address.scope = found.scope;
        made.prefix = found.prefix;
        made.scope = scope_of(found.address);
    }
}

} // namespace

bool qor::glue::qorGetLocalAddresses(IQORLocalAddressList** out) noexcept {
    zetSmartPointer<IQORNetInterfaceList> interfaces;
    if (!qor::glue::qorEnumerateNetInterfaces(interfaces.Out()))
        return false;
    std::vector<qorLocalAddress> addresses;
    for (uint32 i = 0; i < interfaces->GetCount(); ++i) {
        zetSmartPointer<IQORNetInterface> each;
        if (!interfaces->GetInterface(i, each.Out()))
            return false;
        const std::size_t begin = addresses.size();
        add_addresses(**each, addresses);
        for (std::size_t at = begin; at < addresses.size(); ++at)
            addresses[at].interface_index = each->GetIndex();
    }
    return memory::make<local_address_list>(source, __LINE__, out, std::move(addresses));
}
