// Inside the library: the seam to the system's table of services.
#pragma once

#include "qor/system/Types.h"

#include <string>

namespace qor::net {

// The port of a service of TCP. Returns false if the table does not have the name. Thread-safe.
bool port_of_service(const std::string& name, uint16& out);

} // namespace qor::net
