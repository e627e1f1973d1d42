// Names and descriptions of interfaces for people.
#pragma once

#include "device_posix.h"

namespace network {

// Returns the kind of an interface as a word: "Ethernet", "Virtual Ethernet", "Wi-Fi".
const char* kind_of(const link_row& link, bool is_wireless) noexcept;

// Returns its alias, or its first alternative name, or kind and name: "Ethernet (eth0)".
std::string display_name(const link_row& link, const char* kind);

// Returns maker and model, or the kind; then the driver, the place and the alternative names other than the display
// name.
std::string description(const link_row& link, const char* kind, const std::optional<device_facts>& device);

} // namespace network
