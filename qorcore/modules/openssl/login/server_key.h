// Inside the module qor-openssl: the key that identifies a listener of debug control.
#pragma once

#include "support/openssl_support.h"
#include "support/primitives.h"

#include <string>
#include <string_view>

namespace qor::control {

using key_fingerprint = crypto::digest; // SHA-256 of the DER form of the public key

// Throws std::bad_alloc.
key_fingerprint fingerprint_of(EVP_PKEY* key);

// Opens the key beside a file of accounts, in "<accounts>.key": a private key on the curve P-256 in PEM format,
// accessible to its owner only. Makes the key if it is missing; never changes it. On false, the last error gives the
// reason.
bool open_server_key(const std::string& accounts, crypto::key_pointer& key);

// Like the above, but a missing key is an error.
bool read_server_key(const std::string& accounts, crypto::key_pointer& key);

// Derives a secret that only the owner of the key can compute, a different one for each purpose. On false, the last
// error gives the reason.
bool secret_of_key(EVP_PKEY* key, std::string_view purpose, crypto::digest& out);

} // namespace qor::control
