// Inside the library: what the system tells of the host, the seam between the object and the two systems.
#pragma once

#include "qor/qor.h"
#include "system/firmware.h"
#include "system/processor.h"

#include <string>
#include <vector>

namespace qor::system {

// What does not change. An empty text is not known.
struct facts {
    std::string platform, enhanced_platform;
    std::string type, version, description;
    std::string processor_type, processor_extended;
    std::string hypervisor; // empty: this is no virtual machine
};

facts read_facts();
bool read_memory(qorMemoryInfo& info);
uint32 page_size() noexcept;
uint32 count_processors(); // at least 1
uint32 count_cores();      // at least 1

// Its name, from what the processor says and what the firmware says; empty: this is no virtual machine.
std::string name_hypervisor(const hypervisor& seen, const firmware& machine);

// The texts that are not empty, with ", " between them.
std::string join(const std::vector<std::string>& texts);

// "KVM guest"; nothing where there is no hypervisor.
std::string guest_of(const std::string& hypervisor);

} // namespace qor::system
