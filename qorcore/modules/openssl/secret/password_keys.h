// Inside the module qor-openssl: the operations of Password.h on encrypted passwords.
#pragma once

#include "qor/glue/passwords.h"
#include "qor/qor.h"

// On false, the last error gives the reason.
bool create_password_keys(IQORPasswordKeys** out) noexcept;
