// Inside the module qor-openssl: connections to the trace codes of other processes.
#pragma once

#include "qor/qor.h"

// `known_hosts` is the path of the file of known hosts; an empty path means the user's own file. On false, the last
// error gives the reason.
bool create_debug_control(const char* known_hosts, IQORDebugControl** out) noexcept;
