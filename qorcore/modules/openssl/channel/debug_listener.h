// Inside the module qor-openssl: the object behind qorDebugListen.
#pragma once

#include "qor/glue/debug_listener.h"
#include "qor/qor.h"

// On false, the last error gives the reason.
bool create_debug_listener(IQORDebugListener** out) noexcept;
