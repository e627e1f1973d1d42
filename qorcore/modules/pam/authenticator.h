// Inside the module qor-pam: checks passwords with PAM.
#pragma once

#include "qor/qor.h"

// On false, the last error gives the reason.
bool create_authenticator(IQORAuthenticator** out) noexcept;
