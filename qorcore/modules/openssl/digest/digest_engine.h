// Inside the module qor-openssl: OpenSSL's digests.
#pragma once

#include "qor/qor.h"

// On false, the last error gives the reason.
bool create_digest_engine(const char* algorithm, IQORDigestEngine** out) noexcept;
