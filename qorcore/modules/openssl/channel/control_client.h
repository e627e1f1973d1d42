// Inside the module qor-openssl: connections to the trace codes of other processes.
#pragma once

#include "qor/qor.h"

// `known_hosts` names that file; an empty name is the user's own. False: the last error says why.
bool create_debug_control(const char* known_hosts, IQORDebugControl** out) noexcept;
