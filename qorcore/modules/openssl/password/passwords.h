// Inside the module qor-openssl: the operations of Password.h.
#pragma once

#include "qor/glue/passwords.h"
#include "qor/qor.h"

// False: the last error says why.
bool create_passwords(IQORPasswords** out) noexcept;
