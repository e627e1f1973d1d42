// Inside the module qor-systemd: names of units.
#pragma once

#include <string>
#include <string_view>

namespace systemd {

struct unit_name {
    std::string text;         // with its ending: "nginx.service"
    bool is_service = false;  // it has the ending ".service"
    bool is_template = false; // its instances can be started, it cannot
};

// A name without the ending of a kind of units becomes that of a service. Returns false if systemd allows no such name.
bool complete(std::string_view name, unit_name& out);

} // namespace systemd
