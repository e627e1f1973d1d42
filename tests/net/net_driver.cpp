// Names, addresses, texts of services and a listener, in the form of line_driver.h, for the comparison with others:
//
//   parse TEXT HOST PORT     a service, with defaults; "-": there is none
//   name NAME                the canonical name; "-": that of this host
//   reverse ADDRESS          the name of an address
//   addresses                those of this host, each as address, prefix, interface, scope
//   listen                   the port of a listener that echoes up to 100 bytes for each connection
//   close                    ends it
#include "support/line_driver.h"

namespace {

using line_driver::hexadecimal;
using line_driver::words;

void add(std::string& answer, std::string_view word) { answer.append(" ").append(hexadecimal(word)); }
void add(std::string& answer, uint64 number) { add(answer, std::to_string(number)); }

bool parse(const words& given, std::string& answer) {
    qorServiceDefaults defaults;
    if (given[2] != "-")
        defaults.host = given[2].c_str();
    if (given[3] != "-")
        defaults.port = std::stoi(given[3]);
    qorServiceDescriptor service;
    if (!qorParseServiceDescriptor(given[1].c_str(), defaults, service))
        return false;
    add(answer, static_cast<uint32>(service.kind));
    add(answer, service.host);
    add(answer, static_cast<uint32>(service.address.family));
    add(answer, service.address.scope);
    add(answer, service.service);
    add(answer, service.port);
    add(answer, service.path);
    qorString text;
    service.GetText(text);
    add(answer, text);
    qorServiceDescriptor again;
    add(answer, qorParseServiceDescriptor(text, again) && again == service ? "same" : "different");
    return true;
}

bool name(const words& given, std::string& answer) {
    qorString found;
    if (!qorGetHostDNSName(given[1] == "-" ? nullptr : given[1].c_str(), found))
        return false;
    add(answer, found);
    return true;
}

bool reverse(const words& given, std::string& answer) {
    qorHostAddress address;
    qorString found;
    if (!qorStringToAddress(given[1].c_str(), address) || !qorGetHostDNSName(address, found))
        return false;
    add(answer, found);
    return true;
}

bool addresses(const words&, std::string& answer) {
    std::vector<qorLocalAddress> all;
    if (!qorGetLocalAddresses(all))
        return false;
    for (const qorLocalAddress& each : all) {
        qorString text;
        qorAddressToString(each.address, true, text);
        add(answer, text);
        add(answer, each.prefix);
        add(answer, each.interface_index);
        add(answer, static_cast<uint32>(each.scope));
    }
    return true;
}

qorIPPortListener& the_listener() {
    static qorIPPortListener listener;
    return listener;
}

bool listen(const words&, std::string& answer) {
    const bool begun = the_listener().Begin({.address = "127.0.0.1"}, [](IQORIPConnection& connection) {
        char bytes[100];
        uint64 count = 0;
        while (connection.Read(bytes, sizeof bytes, 10'000, count) && count != 0)
            if (!connection.Write(std::string_view(bytes, static_cast<std::size_t>(count)), 10'000))
                return;
    });
    if (begun)
        add(answer, the_listener().Port());
    return begun;
}

bool close(const words&, std::string&) {
    the_listener().Close();
    return true;
}

} // namespace

int main() {
    return line_driver::apply_lines({{"parse", parse},
                                     {"name", name},
                                     {"reverse", reverse},
                                     {"addresses", addresses},
                                     {"listen", listen},
                                     {"close", close}},
                                    4);
}
