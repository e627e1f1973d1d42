// Inside the serial ports on Linux: reads the kernel's files about the ports. No function opens a device.
#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace qor::serial {

// The folders of a host; tests use their own.
struct host {
    std::string sys = "/sys";
    std::string dev = "/dev";
    std::string proc = "/proc";
    std::string locks = "/var/lock";
};

// Returns the last part of a path.
std::string_view base_name(std::string_view path) noexcept;

// Returns the sysfs folder of a terminal.
std::string terminal_folder(const host& on, std::string kernel_name);

// A row of the kernel's table of terminal drivers.
struct driver {
    std::string name; // "rfcomm"
    std::string type; // "serial", "console", "pty:slave" ...
    unsigned major;
    unsigned first_minor;
    unsigned last_minor;
};
std::vector<driver> read_drivers(const host& on);

// Returns the driver of the terminal in the folder; null if there is none.
const driver* find_driver(const std::vector<driver>& drivers, const std::string& folder);

// Returns 0 or the system's error code; on failure, `path` is the folder that could not be read.
int list_ports(const host& on, std::vector<std::string>& names, std::string& path);

// Returns the kernel's name of the port that the user calls `name`: without "/dev/", and with links resolved.
std::string kernel_name(const host& on, const std::string& name);

// Returns the file that the user means by `name`. The file need not exist.
std::string device_file(const host& on, const std::string& name);

// Whether a terminal of this name exists, in sysfs or as a device file.
bool is_known(const host& on, const std::string& kernel_name);

// False only if certainly no UART is present.
bool has_hardware(const host& on, const std::string& kernel_name);

// False only if the device with this number is certainly not a port. Opening such a device could do harm.
bool may_be_port(const host& on, dev_t number);

std::string describe_location(const host& on, const std::string& kernel_name);

} // namespace qor::serial
