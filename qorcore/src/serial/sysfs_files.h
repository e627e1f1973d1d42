// Inside the serial ports on Linux: reading sysfs, where a folder is a device and a file is one of its attributes.
#pragma once

#include <string>
#include <vector>

namespace qor::serial {

// The lines of a file. None if it cannot be read.
std::vector<std::string> read_lines(const std::string& path);

// The first line, without white space around it. Texts of USB devices are whatever their makers wrote. Empty if it
// cannot be read.
std::string read_attribute(const std::string& path);

bool exists(const std::string& path) noexcept;

// Without links in it. Empty if it is not there.
std::string real_path(const std::string& path);

// The last part of what a link points to, or of the path if it is none. Empty if it is not there.
std::string link_target(const std::string& path);

// Without "." and "..". 0, or the system's code.
int read_folder(const std::string& path, std::vector<std::string>& names);

} // namespace qor::serial
