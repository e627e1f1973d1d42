// Inside the module qor-openssl: digests of OpenSSL.
#pragma once

#include "qor/qor.h"

// False: the last error says why.
bool create_digest_engine(const char* algorithm, IQORDigestEngine** out) noexcept;
