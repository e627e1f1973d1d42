// Inside the module qor-openssl, the seam to the system: small files that only their owner may read. Reasons are words of the
// system.
#pragma once

#include <string>

namespace qor::control {

// The whole file; an empty text where there is none. False: `reason` says why.
bool read_private_file(const std::string& path, std::string& text, std::string& reason);

// Puts it in place at once, or leaves what was there; folders above it are made. Only the owner may read it.
bool write_private_file(const std::string& path, const std::string& text, std::string& reason);

// Whether somebody else than its owner may read the file, as far as this system can tell; false where there is none.
bool others_may_read(const std::string& path);
bool file_exists(const std::string& path);

// Where the framework keeps the user's settings, with its separator; empty if that cannot be told.
std::string configuration_folder();

} // namespace qor::control
