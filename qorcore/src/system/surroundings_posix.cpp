// The environment of this system: virtual machine, container, WSL.
#include "system/linux_host.h"

#include <algorithm>
#include <cctype>

namespace {

using qor::system::linux_host;

qor::system::firmware read_firmware(const linux_host& host) {
    const auto text = [&host](const char* name) { return host.read(std::string("/sys/class/dmi/id/") + name); };
    qor::system::firmware machine = {text("product_name"), text("sys_vendor"),      text("board_vendor"),
                                     text("bios_vendor"),  text("product_version"), {}};
    // The first structure of the firmware's own table. A bit in it marks a virtual machine.
    constexpr std::size_t extensions_2 = 0x13;
    constexpr unsigned is_virtual = 1 << 4;
    const std::string raw = host.read("/sys/firmware/dmi/entries/0-0/raw");
    if (raw.size() > extensions_2)
        machine.is_marked_virtual = (static_cast<unsigned char>(raw[extensions_2]) & is_virtual) != 0;
    return machine;
}

// Xen's first domain controls the machine.
bool directs_xen(const linux_host& host) {
    return host.read("/proc/xen/capabilities").find("control_d") != std::string::npos;
}

// If neither the processor nor the firmware names a hypervisor, the kernel may know one from its start.
std::string told_to_kernel(const linux_host& host) {
    if (host.read("/sys/hypervisor/type") == "xen")
        return "Xen";
    const std::string node = host.read("/proc/device-tree/hypervisor/compatible");
    if (node.starts_with("linux,kvm"))
        return "KVM";
    if (node.find("xen") != std::string::npos)
        return "Xen";
    if (node.find("vmware") != std::string::npos)
        return "VMware";
    if (!node.empty())
        return "unknown hypervisor";
    const std::string board = host.read("/proc/device-tree/compatible");
    if (board.starts_with("linux,dummy-virt") || board.find("qemu,pseries") != std::string::npos)
        return "QEMU";
    // A mainframe lists the systems under which this one runs, the closest one first.
    const std::string mainframe = host.read("/proc/sysinfo");
    std::string_view table = mainframe, line;
    while (qor::system::take_line(table, line))
        if (line.starts_with("VM00 Control Program:"))
            return line.find("KVM") != std::string_view::npos ? "KVM" : "z/VM";
    return {};
}

// Returns the value of "container" in a block of NUL-terminated variables.
std::string container_variable(const std::string& block) {
    constexpr std::string_view key = "container=";
    for (std::size_t at = 0; at < block.size(); at = block.find('\0', at) + 1) {
        const std::string variable = block.c_str() + at;
        if (variable.starts_with(key))
            return variable.substr(key.size());
        if (block.find('\0', at) == std::string::npos)
            break;
    }
    return {};
}

constexpr struct {
    const char* part;
    const char* kind;
} group_names[] = {
    {"/kubepods", "kubernetes"},
    {"/docker/", "docker"},
    {"/docker-", "docker"},
    {"/libpod-", "podman"},
    {"/lxc/", "lxc"},
    {"/lxc.payload", "lxc"},
    {"/machine.slice/machine-", "systemd-nspawn"},
};

std::string container_kind(const linux_host& host) {
    if (host.has("/proc/vz") && !host.has("/proc/bc"))
        return "openvz";
    // The manager of the container left this file for the programs inside.
    if (std::string kind = host.read("/run/systemd/container"); !kind.empty())
        return kind;
    if (std::string kind = container_variable(host.read("/proc/1/environ")); !kind.empty())
        return kind;
    if (host.has("/run/.containerenv"))
        return "podman";
    // The first process is in a control group with a name that the manager chose.
    const std::string groups = host.read("/proc/1/cgroup");
    for (const auto& [part, kind] : group_names)
        if (groups.find(part) != std::string::npos)
            return kind;
    return host.has("/.dockerenv") ? "docker" : "";
}

} // namespace

std::string qor::system::find_hypervisor(const linux_host& host) {
    hypervisor seen = read_hypervisor(*host.processor);
    const bool is_first_domain = directs_xen(host);
    if (is_first_domain && seen.name == "Xen")
        seen.is_ours = true;
    const std::string name = name_hypervisor(seen, read_firmware(host));
    return !name.empty() || is_first_domain ? name : told_to_kernel(host);
}

std::string qor::system::find_container(const linux_host& host) {
    const std::string kind = container_kind(host);
    return kind.empty() ? kind : kind + " container";
}

std::string qor::system::find_wsl(const linux_host& host) {
    std::string release = host.release;
    std::transform(release.begin(), release.end(), release.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (release.find("microsoft") == std::string::npos)
        return {};
    // WSL 1 has no Linux kernel. Its substitute reports version 4.4 and a name without "WSL".
    return release.find("wsl2") != std::string::npos || !release.starts_with("4.4.") ? "WSL 2" : "WSL 1";
}
