// Inside the library: facts about the host, the seam between the object and the two systems.
#pragma once

#include "qor/qor.h"
#include "system/firmware.h"
#include "system/processor.h"

#include <string>
#include <vector>

namespace qor::system {

// Constant facts. A text is empty if it is unknown.
struct facts {
    std::string platform, enhanced_platform;
    std::string type, version, description;
    std::string processor_type, processor_extended;
    std::string hypervisor; // empty if this is not a virtual machine
};

facts read_facts();
bool read_memory(qorMemoryInfo& info);
uint32 page_size() noexcept;
uint32 count_processors(); // at least 1
uint32 count_cores();      // at least 1

// Names the hypervisor from the data of the processor and of the firmware. Empty if this is not a virtual machine.
std::string name_hypervisor(const hypervisor& seen, const firmware& machine);

// Joins the texts that are not empty with ", ".
std::string join(const std::vector<std::string>& texts);

// Returns "KVM guest"; empty if there is no hypervisor.
std::string guest_of(const std::string& hypervisor);

} // namespace qor::system
