// Inside the serial ports on Windows: what the device manager knows.
#pragma once

#include <string>

namespace qor::serial {

// What stands behind a port, and where: "USB Serial Port, Port_#0003.Hub_#0002, serial A50285BI". Empty where the
// device manager has no such port.
std::string device_place(const std::string& port);

} // namespace qor::serial
