// The system's data about the hardware behind an interface. It is looked up by bus and device, and by the name of the
// interface only if there is no other way: in many containers, /sys/class/net belongs to another network namespace.
#pragma once

#include "dump_posix.h"

#include <map>
#include <optional>
#include <string>

namespace network {

struct device_facts {
    std::string maker; // the names that the system knows; may be empty
    std::string model;
    std::string driver;
    std::string place; // "PCI 0000:00:03.0", "USB bus 1, port 2.3"
    bool is_wireless = false;
};

class device_finder {
public:
    // `root` is put in front of every path; empty for this host.
    explicit device_finder(std::string root = {}) : m_root(std::move(root)) {}

    // Returns the hardware of an interface, if it has any.
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
