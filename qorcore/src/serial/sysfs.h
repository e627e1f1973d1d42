// Inside the serial ports on Linux: what the kernel tells of them in its files. Nothing here opens a device.
#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace qor::serial {

// Where a host's files lie; tests have hosts of their own.
struct host {
    std::string sys = "/sys";
    std::string dev = "/dev";
    std::string proc = "/proc";
    std::string locks = "/var/lock";
};

// The last part of a path.
std::string_view base_name(std::string_view path) noexcept;

// The kernel's folder of a terminal.
std::string terminal_folder(const host& on, std::string kernel_name);

// A row of the table of terminal drivers.
struct driver {
    std::string name; // "rfcomm"
    std::string type; // "serial", "console", "pty:slave" ...
    unsigned major;
    unsigned first_minor;
    unsigned last_minor;
};
std::vector<driver> read_drivers(const host& on);

// That of the terminal in the folder; null if none has it.
const driver* find_driver(const std::vector<driver>& drivers, const std::string& folder);

// 0, or the system's code; path is then what could not be read.
int list_ports(const host& on, std::vector<std::string>& names, std::string& path);

// The kernel's name of the port that a user calls so: without "/dev/", and not that of a link to it.
std::string kernel_name(const host& on, const std::string& name);

// The file that a user means by a name. It need not be there.
std::string device_file(const host& on, const std::string& name);

// Whether there is a terminal of this name, by the kernel or by its device file.
bool is_known(const host& on, const std::string& kernel_name);

// False only if it is certain that no UART answers there.
bool has_hardware(const host& on, const std::string& kernel_name);

// False only if it is certain that the device of this number is another thing than a port: opening it could do harm.
bool may_be_port(const host& on, dev_t number);

std::string describe_location(const host& on, const std::string& kernel_name);

} // namespace qor::serial
