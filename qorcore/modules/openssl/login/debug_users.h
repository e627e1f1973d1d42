// Inside the module qor-openssl: the operations of DebugUsers.h.
#pragma once

#include "qor/glue/passwords.h"
#include "qor/qor.h"

// False: the last error says why.
bool create_debug_users(IQORDebugUsers** out) noexcept;
