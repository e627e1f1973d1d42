// Finds the ports and their names.
#include "serial/sysfs.h"

#include "serial/sysfs_files.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

using qor::serial::host;

// A terminal with a device behind it is a port. The other terminals exist only in software: consoles, but also serial
// ports (Bluetooth, gadget ports of a USB device, multiplexers). For these, the type of the driver decides.
bool is_port(const std::vector<qor::serial::driver>& drivers, const std::string& folder) {
    if (qor::serial::exists(folder + "/device"))
        return true;
    const auto* const driver = qor::serial::find_driver(drivers, folder);
    return driver != nullptr && driver->type == "serial";
}

bool is_console(const host& on, const std::string& name) {
    const std::string consoles = ' ' + qor::serial::read_attribute(on.sys + "/class/tty/console/active") + ' ';
    return consoles.find(' ' + name + ' ') != std::string::npos;
}

std::string number_link(const host& on, dev_t number) {
    return on.sys + "/dev/char/" + std::to_string(major(number)) + ':' + std::to_string(minor(number));
}

bool is_terminal(const host& on, const std::string& name) {
    return qor::serial::exists(qor::serial::terminal_folder(on, name) + "/dev");
}

std::string without_folder(const std::string& path, const std::string& folder) {
    return path.starts_with(folder + '/') ? path.substr(folder.size() + 1) : path;
}

} // namespace

std::string_view qor::serial::base_name(std::string_view path) noexcept { return path.substr(path.rfind('/') + 1); }

std::string qor::serial::terminal_folder(const host& on, std::string kernel_name) {
    // In sysfs, '!' replaces the '/' in a name.
    std::replace(kernel_name.begin(), kernel_name.end(), '/', '!');
    return on.sys + "/class/tty/" + kernel_name;
}

std::vector<qor::serial::driver> qor::serial::read_drivers(const host& on) {
    std::vector<driver> drivers;
    // Name, file, major number, minor number or range of minor numbers, type:
    //     serial               /dev/ttyS        4 64-95 serial
    for (const std::string& line : read_lines(on.proc + "/tty/drivers")) {
        char name[64];
        char type[32];
        driver row{};
        if (std::sscanf(line.c_str(), "%63s %*s %u %u-%u %31s", name, &row.major, &row.first_minor, &row.last_minor,
                        type) != 5) {
            if (std::sscanf(line.c_str(), "%63s %*s %u %u %31s", name, &row.major, &row.first_minor, type) != 4)
                continue;
            row.last_minor = row.first_minor;
        }
        row.name = name;
        row.type = type;
        drivers.push_back(std::move(row));
    }
    return drivers;
}

const qor::serial::driver* qor::serial::find_driver(const std::vector<driver>& drivers, const std::string& folder) {
    unsigned major = 0;
    unsigned minor = 0;
    if (std::sscanf(read_attribute(folder + "/dev").c_str(), "%u:%u", &major, &minor) != 2)
        return nullptr;
    const auto found = std::find_if(drivers.begin(), drivers.end(), [&](const driver& row) {
        return row.major == major && minor >= row.first_minor && minor <= row.last_minor;
    });
    return found != drivers.end() ? &*found : nullptr;
}

int qor::serial::list_ports(const host& on, std::vector<std::string>& names, std::string& path) {
    path = on.sys + "/class/tty";
    std::vector<std::string> found;
    if (const int code = read_folder(path, found))
        // A kernel without terminals has no ports: no error. In a container without /sys the ports are unknown: an
        // error.
        return code == ENOENT && exists(on.sys + "/class") ? 0 : code;
    const std::vector<driver> drivers = read_drivers(on);
    for (std::string& name : found) {
        if (!is_port(drivers, path + '/' + name) || !has_hardware(on, name))
            continue;
        std::replace(name.begin(), name.end(), '!', '/');
        names.push_back(std::move(name));
    }
    return 0;
}

bool qor::serial::has_hardware(const host& on, const std::string& kernel_name) {
    const std::string folder = terminal_folder(on, kernel_name);
    // The type of the UART, for ports that have one; 0 means that there is no UART. The 8250 driver creates terminals
    // for as many ports as it could serve, whether they exist or not.
    const std::string type = read_attribute(folder + "/type");
    if (!type.empty() || !exists(folder + "/type"))
        return type != "0";
    // Older kernels show the type to root only. In that case, a port below the platform device serial8250 has no
    // hardware, unless it is a console.
    return real_path(folder).find("/platform/serial8250/") == std::string::npos || is_console(on, kernel_name);
}

std::string qor::serial::device_file(const host& on, const std::string& name) {
    if (name.starts_with('/'))
        return name;
    const std::string usual = on.dev + '/' + name;
    const bool is_path = name.find('/') != std::string::npos;
    return is_path && !exists(usual) && exists(name) ? name : usual;
}

std::string qor::serial::kernel_name(const host& on, const std::string& name) {
    std::string plain = without_folder(name, on.dev);
    if (is_terminal(on, plain))
        return plain;
    const std::string file = device_file(on, name);
    struct stat status;
    if (stat(file.c_str(), &status) != 0 || !S_ISCHR(status.st_mode))
        return plain;
    const std::string link = number_link(on, status.st_rdev);
    std::string known = link_target(link);
    std::replace(known.begin(), known.end(), '!', '/');
    return known.empty() ? without_folder(real_path(file), real_path(on.dev)) : known;
}

bool qor::serial::is_known(const host& on, const std::string& kernel_name) {
    struct stat status;
    return is_terminal(on, kernel_name) || (stat(device_file(on, kernel_name).c_str(), &status) == 0 &&
                                            S_ISCHR(status.st_mode) && may_be_port(on, status.st_rdev));
}

bool qor::serial::may_be_port(const host& on, dev_t number) {
    // The virtual consoles, and the names that stand for another terminal.
    constexpr unsigned consoles = 4;
    constexpr unsigned first_port = 64;
    constexpr unsigned stand_ins = 5;
    if (major(number) == stand_ins || (major(number) == consoles && minor(number) < first_port))
        return false;
    const std::string subsystem = link_target(number_link(on, number) + "/subsystem");
    return subsystem.empty() || subsystem == "tty";
}
