// Inside the serial ports on Linux: reads sysfs, where a folder is a device and a file is one of its attributes.
#pragma once

#include <string>
#include <vector>

namespace qor::serial {

// Returns the lines of a file; no lines if it cannot be read.
std::vector<std::string> read_lines(const std::string& path);

// Returns the first line without surrounding white space; empty if the file cannot be read. The makers of USB devices
// choose the text freely, so it may contain anything.
std::string read_attribute(const std::string& path);

bool exists(const std::string& path) noexcept;

// Returns the path with links resolved; empty if it does not exist.
std::string real_path(const std::string& path);

// Returns the last part of the target of a link, or of the path itself if it is not a link. Empty if the path does not
// exist.
std::string link_target(const std::string& path);

// Lists a folder without "." and "..". Returns 0 or the system's error code.
int read_folder(const std::string& path, std::vector<std::string>& names);

} // namespace qor::serial
