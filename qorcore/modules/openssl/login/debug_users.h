// Inside the module qor-openssl: the operations of DebugUsers.h.
#pragma once

#include "qor/glue/passwords.h"
#include "qor/qor.h"

// On false, the last error gives the reason.
bool create_debug_users(IQORDebugUsers** out) noexcept;
