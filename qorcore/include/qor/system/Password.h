// Passwords as they are stored: a form that tells whether a password is the right one, but not which it is.
// docs/passwords.md tells more. All of these need the module qor-openssl; false: the last error says why. Any thread.
//
// Passwords are taken as the bytes that they are, UTF-8 where they come from the user, and are never normalised. One
// with control characters is qorError_bad_password; it may be empty. The caller's own copy is for the caller to wipe.
#pragma once

#include "qor/glue/binding.h"

// The form to store a password in: "SCRAM-SHA-256$<iterations>:<salt>$<StoredKey>:<ServerKey>". Without `earlier`
// (null) it has 600,000 iterations and a fresh salt, so that the same password is stored differently each time.
// `earlier` is such a form or the beginning of one, up to the salt at least, whose iterations and salt are used again;
// qorError_bad_password_hash: it is none, or its iterations do not lie between 4,096 and 2,000,000.
[[nodiscard]] inline bool qorCreatePasswordHash(const char* password, const char* earlier, qorString& hash) noexcept {
    return qor::glue::qorCreatePasswordHash(password, earlier, hash);
}

// Whether it is the password that was stored; the time it takes does not tell how close it is. False:
// qorError_credentials_refused for another password, qorError_bad_password_hash for what is no such form.
[[nodiscard]] inline bool qorVerifyPassword(const char* password, const char* hash) noexcept {
    return qor::glue::qorVerifyPassword(password, hash);
}

// A password of 100 random bits, in four groups of letters and digits that are not taken for each other.
[[nodiscard]] inline bool qorGeneratePassword(qorString& password) noexcept {
    return qor::glue::qorGeneratePassword(password);
}
