// What an interface is called towards people.
#pragma once

#include "device_posix.h"

namespace network {

// The kind of an interface in words: "Ethernet", "Virtual Ethernet", "Wi-Fi".
const char* kind_of(const link_row& link, bool is_wireless) noexcept;

// Its alias, else its first alternative name, else kind and name: "Ethernet (eth0)".
std::string display_name(const link_row& link, const char* kind);

// Maker and model, or the kind; driver; place; alternative names that are not its display name.
std::string description(const link_row& link, const char* kind, const std::optional<device_facts>& device);

} // namespace network
