// Passwords in a stored form, which can verify a password but does not reveal it. docs/passwords.md describes it. All
// operations need the module qor-openssl. They return false and set the last error on failure. Any thread.
//
// A password is a sequence of bytes, in UTF-8 if it comes from the user, and is never normalised. It may be empty.
// Control characters are refused (qorError_bad_password). The caller wipes its own copy.
#pragma once

#include "qor/glue/binding.h"

// Creates the stored form of a password: "SCRAM-SHA-256$<iterations>:<salt>$<StoredKey>:<ServerKey>". If `earlier` is
// null, it uses 600,000 iterations and a fresh salt, so equal passwords get different forms. Otherwise `earlier` is
// such a form, or its beginning up to the salt or beyond, and supplies the iterations and the salt.
// qorError_bad_password_hash: `earlier` is not such a form, or its iterations do not lie between 4,096 and 2,000,000.
[[nodiscard]] inline bool qorCreatePasswordHash(const char* password, const char* earlier, qorString& hash) noexcept {
    return qor::glue::qorCreatePasswordHash(password, earlier, hash);
}

// Checks a password against a stored form, in a time that does not depend on how close it is. Returns false with
// qorError_credentials_refused for a wrong password, or qorError_bad_password_hash if `hash` is not a stored form.
[[nodiscard]] inline bool qorVerifyPassword(const char* password, const char* hash) noexcept {
    return qor::glue::qorVerifyPassword(password, hash);
}

// Generates a password of 100 random bits: four groups of letters and digits that are hard to confuse.
[[nodiscard]] inline bool qorGeneratePassword(qorString& password) noexcept {
    return qor::glue::qorGeneratePassword(password);
}
