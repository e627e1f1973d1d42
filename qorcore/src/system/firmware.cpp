#include "system/firmware.h"

#include <string_view>

namespace {

struct row {
    std::string_view prefix;
    const char* hypervisor;
    bool has_real_machines = false; // real machines have the same name
};

// "Oracle Corporation" and "Microsoft Corporation" are missing because they also build servers and tablets.
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

// Recognises real machines by names like "m5.metal" and "c3-standard-192-metal" if the firmware does not mark them.
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
