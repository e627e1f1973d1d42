#include "interface_list.h"

#include <algorithm>
#include <utility>

namespace {

using network::interface_facts;

constexpr char source[] = "qorcore/modules/network/interface_list";

void set(qorString& out, const std::string& text) { out.Set(text.c_str(), static_cast<int32>(text.size())); }

template <class ADDRESS>
bool pick(const std::vector<ADDRESS>& from, uint32 index, ADDRESS& out) {
    if (index >= from.size())
        return false;
    out = from[index];
    return true;
}

class interface_list final : public qor::object<IQORNetInterfaceList> {
public:
    explicit interface_list(std::vector<interface_facts> interfaces) noexcept
        : object("qorcore.network.interface_list", "IQORNetInterfaceList"), m_interfaces(std::move(interfaces)) {}

    bool FindInterface(const char* name, IQORNetInterface** out) noexcept override;
    uint32 GetCount() noexcept override { return static_cast<uint32>(m_interfaces.size()); }
    bool GetInterface(uint32 index, IQORNetInterface** out) noexcept override;

private:
    const std::vector<interface_facts> m_interfaces;
};

class net_interface final : public qor::object<IQORNetInterface> {
public:
    net_interface(interface_list* list, const interface_facts& facts) noexcept
        : object("qorcore.network.net_interface", "IQORNetInterface"), m_facts(facts) {
        list->AddRef();
        m_list.AttachNew(list);
    }

    uint32 GetIndex() noexcept override { return m_facts.index; }
    void GetName(qorString& out) noexcept override { set(out, m_facts.name); }
    void GetDescription(qorString& out) noexcept override { set(out, m_facts.description); }
    void GetAlternativeNames(qorStringArray& out) noexcept override {
        out.Empty();
        for (const std::string& name : m_facts.alternative_names)
            out.Append(name.c_str());
    }
    void GetDisplayName(qorString& out) noexcept override { set(out, m_facts.display_name); }
    bool GetHardwareAddress(uint8_Array& out) noexcept override {
        out.Empty();
        qor::or_end(
            [&] { out.Append(m_facts.hardware_address.data(), static_cast<uint32>(m_facts.hardware_address.size())); });
        return !out.IsEmpty();
    }
    uint32 GetIPv4Count() noexcept override { return static_cast<uint32>(m_facts.ipv4.size()); }
    bool GetIPv4Address(uint32 index, qorNetAddress4& out) noexcept override { return pick(m_facts.ipv4, index, out); }
    bool GetExtraIPv4Address(qorNetAddress4& out) noexcept override {
        if (m_facts.gateway)
            out = *m_facts.gateway;
        return m_facts.gateway.has_value();
    }
    uint32 GetIPv6Count() noexcept override { return static_cast<uint32>(m_facts.ipv6.size()); }
    bool GetIPv6Address(uint32 index, qorNetAddress6& out) noexcept override { return pick(m_facts.ipv6, index, out); }

private:
    zetSmartPointer<interface_list> m_list; // owns the facts
    const interface_facts& m_facts;
};

bool interface_list::FindInterface(const char* name, IQORNetInterface** out) noexcept {
    const auto found = std::ranges::find_if(m_interfaces, [name](const interface_facts& each) {
        return each.name == name || std::ranges::find(each.alternative_names, name) != each.alternative_names.end();
    });
    return GetInterface(static_cast<uint32>(found - m_interfaces.begin()), out);
}

bool interface_list::GetInterface(uint32 index, IQORNetInterface** out) noexcept {
    if (index >= m_interfaces.size())
        return false;
    *out = qor::or_end([&] { return new (source, __LINE__) net_interface(this, m_interfaces[index]); });
    return true;
}

} // namespace

IQORNetInterfaceList* network::make_list(std::vector<interface_facts> interfaces) {
    return new (source, __LINE__) interface_list(std::move(interfaces));
}

uint32 network::scope_of(const qoraddr_ipv6& address, uint32 link) noexcept {
    return address.bytes[0] == 0xfe && (address.bytes[1] & 0xc0) == 0x80 ? link : 0;
}
