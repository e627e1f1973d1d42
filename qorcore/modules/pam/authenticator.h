// Inside the module qor-pam: passwords checked by PAM.
#pragma once

#include "qor/qor.h"

// False: the last error says why.
bool create_authenticator(IQORAuthenticator** out) noexcept;
