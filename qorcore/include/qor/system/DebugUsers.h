// The accounts that may log in to debug control: a file that only its owner may access. docs/debug-control-accounts.md
// describes its format. All operations need the module qor-openssl. On failure they return false, set the last error
// and leave the file unchanged. Any thread may call them, and several processes may do so at once.
//
// A null `file` means the file "debug-users" in the framework's configuration folder, which listeners use as well. A
// file that anyone but its owner may read or write is refused.
#pragma once

#include "qor/glue/binding.h"

// Creates an account. Creates the file if it is missing, and beside it, in "<file>.key", the key that identifies
// listeners. Names have 1 to 255 bytes, without colons and control characters, do not begin with '#', and neither begin
// nor end with a blank. Passwords follow the rules of qorCreatePasswordHash, but cannot be empty. qorError_user_exists:
// the account exists already.
inline bool qorAddDebugUser(const char* file, const char* name, const char* password) noexcept {
    return qor::glue::qorAddDebugUser(file, name, password);
}

// Changes the password of an account. qorError_no_such_user: there is no such account.
inline bool qorChangeDebugUser(const char* file, const char* name, const char* password) noexcept {
    return qor::glue::qorChangeDebugUser(file, name, password);
}

// Removes an account; sessions that are logged in continue. qorError_no_such_user: there is no such account.
inline bool qorRemoveDebugUser(const char* file, const char* name) noexcept {
    return qor::glue::qorRemoveDebugUser(file, name);
}

// Replaces the content of `names` by the names of all accounts.
[[nodiscard]] inline bool qorGetDebugUsers(const char* file, qorStringArray& names) noexcept {
    return qor::glue::qorGetDebugUsers(file, names);
}

// Gets the fingerprint of the key beside the accounts, which identifies a listener: 64 hexadecimal digits. Creates no
// key.
[[nodiscard]] inline bool qorGetDebugKeyFingerprint(const char* file, qorString& fingerprint) noexcept {
    return qor::glue::qorGetDebugKeyFingerprint(file, fingerprint);
}
