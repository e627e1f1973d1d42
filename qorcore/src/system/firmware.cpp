#include "system/firmware.h"

#include <string_view>

namespace {

struct row {
    std::string_view prefix;
    const char* hypervisor;
    bool has_real_machines = false; // under the same name
};

// "Oracle Corporation" and "Microsoft Corporation" are missing: they build servers and tablets, too.
constexpr row rows[] = {
    {"KVM", "KVM"},
    {"OpenStack", "KVM"},
    {"KubeVirt", "KVM"},
    {"Amazon EC2", "Amazon EC2", true},
    {"Google Compute Engine", "Google Compute Engine", true},
    {"QEMU", "QEMU"},
    {"VMware", "VMware"},
    {"VMW", "VMware"},
    {"innotek GmbH", "VirtualBox"},
    {"VirtualBox", "VirtualBox"},
    {"Xen", "Xen"},
    {"HVM domU", "Xen"},
    {"Bochs", "Bochs"},
    {"Parallels", "Parallels"},
    {"BHYVE", "bhyve"},
    {"Hyper-V", "Hyper-V"},
    {"Apple Virtualization", "Apple Virtualization"},
};

// "m5.metal", "c3-standard-192-metal"
bool is_metal(const qor::system::firmware& machine) {
    return machine.is_marked_virtual ? !*machine.is_marked_virtual : machine.product.find("metal") != std::string::npos;
}

} // namespace

const char* qor::system::find_hypervisor(const firmware& machine) {
    if (machine.maker == "Microsoft Corporation" && machine.product == "Virtual Machine")
        return "Hyper-V";
    for (const std::string* const text :
         {&machine.product, &machine.maker, &machine.board_maker, &machine.firmware_maker, &machine.version})
        for (const row& each : rows)
            if (text->starts_with(each.prefix))
                return each.has_real_machines && is_metal(machine) ? nullptr : each.hypervisor;
    return machine.is_marked_virtual.value_or(false) ? "unknown hypervisor" : nullptr;
}
