// netlist: the network interfaces of the host.
#include "action_arguments.h"
#include "message_names.h"
#include "qortool_app.h"

namespace message = qor::messages::tool;

namespace {

qorString hardware_address(IQORNetInterface* ni) {
    qorString text;
    uint8_Array bytes;
    if (!ni->GetHardwareAddress(bytes) || bytes.IsEmpty()) {
        text.LoadString(message::catalog, message::no_hardware_address);
        return text;
    }
    for (uint32 i = 0; i < bytes.GetCount(); ++i) {
        qorString digits;
        digits.Printf(i == 0 ? "%02x" : ":%02x", *bytes.GetElementPtr(i));
        text.AppendString(digits);
    }
    return text;
}

qorString with_prefix(const qorString& address, unsigned prefix) {
    qorString text;
    text.Printf("%s/%u", address.Text(), prefix);
    return text;
}

} // namespace

void qortool_app::netlist_show_net(IQORNetInterface* ni) {
    const qorDebugSeq trace(m_debug_code, "netlist_show_net");
    qorString text;
    ni->GetName(text);
    fputmsg(stdout, message::catalog, message::interface_name, text);
    ni->GetDescription(text);
    fputmsg(stdout, message::catalog, message::interface_description, text);
    ni->GetDisplayName(text);
    fputmsg(stdout, message::catalog, message::interface_display_name, text);
    fputmsg(stdout, message::catalog, message::hardware_address, hardware_address(ni));
    qorNetAddress4 ipv4{};
    for (uint32 i = 0; i < ni->GetIPv4Count(); ++i) {
        ni->GetIPv4Address(i, ipv4);
        qorAddressToString(ipv4.address, text);
        fputmsg(stdout, message::catalog, message::ipv4_address, with_prefix(text, ipv4.prefix));
    }
    if (ni->GetExtraIPv4Address(ipv4)) {
        qorAddressToString(ipv4.address, text);
        fputmsg(stdout, message::catalog, message::default_gateway, text);
    }
    for (uint32 i = 0; i < ni->GetIPv6Count(); ++i) {
        qorNetAddress6 ipv6{};
        ni->GetIPv6Address(i, ipv6);
        qorAddressToString(ipv6.address, ipv6.scope, text);
        fputmsg(stdout, message::catalog, message::ipv6_address, with_prefix(text, ipv6.prefix));
    }
}

int qortool_app::func_netlist(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "func_netlist");
    if (!m_quiet)
        fputmsg(stdout, message::catalog, message::interfaces_heading, true);
    if (!check_arguments(args, "netlist", 0))
        return 1;
    zetSmartPointer<IQORNetInterfaceList> list;
    if (!qorEnumerateNetInterfaces(list.Out())) {
        qorString reason;
        qorGetLastError(reason);
        qorString text;
        text.Format(message::catalog, message::interfaces_not_listed, reason);
        text.Put(stderr, true);
        return 1;
    }
    for (uint32 i = 0; i < list->GetCount(); ++i) {
        zetSmartPointer<IQORNetInterface> ni;
        if (!list->GetInterface(i, ni.Out()))
            continue;
        netlist_show_net(*ni);
        fixed_fprintf(stdout, "\n");
    }
    return 0;
}
