// Inside the serial ports on Windows: facts from the device manager.
#pragma once

#include <string>

namespace qor::serial {

// Returns the device behind a port and its place: "USB Serial Port, Port_#0003.Hub_#0002, serial A50285BI". Empty if
// the device manager does not have the port.
std::string device_place(const std::string& port);

} // namespace qor::serial
