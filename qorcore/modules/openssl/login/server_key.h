// Inside the module qor-openssl: the key by which a listener of debug control is known.
#pragma once

#include "support/openssl_support.h"
#include "support/primitives.h"

#include <string>
#include <string_view>

namespace qor::control {

using key_fingerprint = crypto::digest; // SHA-256 of the DER form of the public key

// Throws std::bad_alloc.
key_fingerprint fingerprint_of(EVP_PKEY* key);

// The key beside a file of accounts, in "<accounts>.key": a private key of the curve P-256, PEM, its owner's alone. It
// is made where there is none, and never changed. False: the last error says why.
bool open_server_key(const std::string& accounts, crypto::key_pointer& key);

// The same where the key has to be there.
bool read_server_key(const std::string& accounts, crypto::key_pointer& key);

// A secret that only who has the key can know, another one for each purpose. False: the last error says why.
bool secret_of_key(EVP_PKEY* key, std::string_view purpose, crypto::digest& out);

} // namespace qor::control
