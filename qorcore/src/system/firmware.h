// Inside the library: what the firmware's tables say of the machine.
#pragma once

#include <optional>
#include <string>

namespace qor::system {

// Texts as they stand there; empty where there is none.
struct firmware {
    std::string product, maker, board_maker, firmware_maker, version;
    std::optional<bool> is_marked_virtual; // not everybody may read it
};

// The hypervisor that the machine is one of; null: it is a real one, or does not tell.
const char* find_hypervisor(const firmware& machine);

} // namespace qor::system
