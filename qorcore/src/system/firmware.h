// Inside the library: the firmware's description of the machine.
#pragma once

#include <optional>
#include <string>

namespace qor::system {

// The texts as the firmware has them; empty if it has none.
struct firmware {
    std::string product, maker, board_maker, firmware_maker, version;
    std::optional<bool> is_marked_virtual; // not every user may read it
};

// Returns the hypervisor under the machine. Null if the machine is real, or if its firmware does not reveal a
// hypervisor.
const char* find_hypervisor(const firmware& machine);

} // namespace qor::system
