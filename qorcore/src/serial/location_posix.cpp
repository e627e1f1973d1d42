// The location of a port. In sysfs, the folder of a port lies in the folder of its device, which lies in the folder of
// its bus.
#include "serial/natural_order.h"
#include "serial/sysfs.h"
#include "serial/sysfs_files.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

using qor::serial::exists;
using qor::serial::host;
using qor::serial::link_target;
using qor::serial::read_attribute;
using qor::serial::real_path;

std::string parent(const std::string& path) { return path.substr(0, path.rfind('/')); }

// Returns ", line 2 of 4" if a device has several ports, counted in natural order of their names.
std::string line_of(const host& on, const std::string& device, const std::string& port) {
    std::vector<std::string> names;
    std::vector<std::string> ports;
    qor::serial::read_folder(on.sys + "/class/tty", names);
    for (const std::string& name : names) {
        std::string path = real_path(on.sys + "/class/tty/" + name);
        if (path.starts_with(device + '/'))
            ports.push_back(std::move(path));
    }
    if (ports.size() < 2)
        return {};
    std::sort(ports.begin(), ports.end(), qor::serial::comes_before);
    const auto own = std::find(ports.begin(), ports.end(), port) - ports.begin() + 1;
    return ", line " + std::to_string(own) + " of " + std::to_string(ports.size());
}

// Returns "FTDI FT232R USB UART, serial A50285BI". Without a product name, the ids of maker and product take its place.
std::string usb_texts(const std::string& device) {
    const std::string maker = read_attribute(device + "/manufacturer");
    std::string text = read_attribute(device + "/product");
    if (text.empty())
        text = read_attribute(device + "/idVendor") + ':' + read_attribute(device + "/idProduct");
    if (!maker.empty() && !text.starts_with(maker))
        text = maker + ' ' + text;
    const std::string number = read_attribute(device + "/serial");
    return number.empty() ? text : text + ", serial " + number;
}

std::string hexadecimal(unsigned long long number) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%llx", number);
    return text;
}

// Returns the address of a UART on the motherboard, "0x3f8". Empty if only root may read it.
std::string address(const std::string& port, const std::string& device) {
    for (const char* const attribute : {"/port", "/iomem_base"}) {
        const std::string text = read_attribute(port + attribute);
        if (const unsigned long long number = std::strtoull(text.c_str(), nullptr, 0))
            return hexadecimal(number);
    }
    // Everybody may read the plug-and-play resources, one a line: "io 0x3f8-0x3ff".
    unsigned long long number = 0;
    for (const std::string& line : qor::serial::read_lines(device + "/resources"))
        if (std::sscanf(line.c_str(), "io 0x%llx", &number) == 1 ||
            std::sscanf(line.c_str(), "mem 0x%llx", &number) == 1)
            break;
    return number != 0 ? hexadecimal(number) : "";
}

std::string on_motherboard(const std::string& port, const std::string& device) {
    const std::string at = address(port, device);
    return at.empty() ? "motherboard UART" : "motherboard UART at " + at;
}

// Returns the name of a device on its bus. Empty if the device has no place of its own but is part of the device around
// it.
std::string place(const host& on, const std::string& device, const std::string& port) {
    const std::string bus = link_target(device + "/subsystem");
    const std::string name(qor::serial::base_name(device));
    if (bus.empty() || bus == "tty" || bus == "serial-base" || bus == "usb-serial")
        return {};
    if (bus == "usb") {
        // An interface is a part of its device; only the device has a place.
        const std::string number = read_attribute(device + "/busnum");
        return number.empty() ? number
                              : "USB bus " + number + ", port " + read_attribute(device + "/devpath") +
                                    line_of(on, device, port) + ": " + usb_texts(device);
    }
    if (bus == "pnp" || (bus == "platform" && name == "serial8250"))
        return on_motherboard(port, device);
    const bool on_board = bus == "platform" || bus == "amba";
    const std::string kind = bus == "pci" ? "PCI" : on_board ? "on-board UART" : bus;
    return kind + ' ' + name + line_of(on, device, port);
}

// A port without a device exists only in its driver.
std::string place_of_software(const host& on, const std::string& port, const std::string& name) {
    constexpr std::string_view gadget = "ttyGS";
    if (name.starts_with(gadget))
        return "USB gadget, line " + name.substr(gadget.size());
    const std::vector<qor::serial::driver> drivers = qor::serial::read_drivers(on);
    const auto* const driver = qor::serial::find_driver(drivers, port);
    return driver != nullptr ? "software, driver " + driver->name : "";
}

std::string place_of_port(const host& on, const std::string& port, const std::string& name) {
    // A Bluetooth port has no device until it is used.
    const std::string peer = read_attribute(port + "/address");
    if (!peer.empty())
        return "Bluetooth " + peer + ", channel " + read_attribute(port + "/channel");
    const std::string top = real_path(on.sys);
    for (std::string device = parent(port); device.size() > top.size(); device = parent(device)) {
        std::string text = place(on, device, port);
        if (!text.empty())
            return text;
    }
    return place_of_software(on, port, name);
}

} // namespace

std::string qor::serial::describe_location(const host& on, const std::string& kernel_name) {
    const std::string file = on.dev + '/' + kernel_name;
    const std::string folder = terminal_folder(on, kernel_name);
    if (!exists(folder)) {
        // A terminal without a folder in sysfs is known only if its name is in the folder of pseudo-terminals.
        return kernel_name.starts_with("pts/") ? "pseudo-terminal" : "";
    }
    std::string text = place_of_port(on, real_path(folder), kernel_name);
    // A container sees the ports of its host, but not their device files unless it is given them.
    if (!exists(file))
        text += (text.empty() ? "no file " : ", no file ") + file;
    return text;
}
