// Inside the module qor-openssl: the object behind qorDebugListen.
#pragma once

#include "qor/glue/debug_listener.h"
#include "qor/qor.h"

// False: the last error says why.
bool create_debug_listener(IQORDebugListener** out) noexcept;
