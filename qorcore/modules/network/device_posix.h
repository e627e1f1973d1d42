// What the system's files say of the hardware behind an interface. They are asked by bus and device, never by the name
// of an interface where that can be helped: those in /sys/class/net are of another network namespace in many a
// container.
#pragma once

#include "dump_posix.h"

#include <map>
#include <optional>
#include <string>

namespace network {

struct device_facts {
    std::string maker; // as the system knows them; may be empty
    std::string model;
    std::string driver;
    std::string place; // "PCI 0000:00:03.0", "USB bus 1, port 2.3"
    bool is_wireless = false;
};

class device_finder {
public:
    // `root` stands in front of every path; empty for this host.
    explicit device_finder(std::string root = {}) : m_root(std::move(root)) {}

    // The hardware of an interface, if it has any.
    std::optional<device_facts> find(const link_row& link);

private:
    std::string folder_of(const link_row& link) const;
    std::string folder_by_name(const link_row& link) const;
    void describe_pci(const std::string& folder, device_facts& out);
    const std::string& pci_names();

    std::string m_root;
    std::optional<std::string> m_pci_names;
};

} // namespace network
