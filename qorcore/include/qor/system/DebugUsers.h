// Who may log in to debug control: a file of accounts, which belongs to its owner alone. docs/debug-control-accounts.md
// tells of its form. All of these need the module qor-openssl; false: the last error says why, and the file is as it
// was. Any thread, and several processes at once.
//
// `file` null is the file "debug-users" in the framework's configuration folder, where listeners look, too. A file that
// others than its owner may read or write is refused.
#pragma once

#include "qor/glue/binding.h"

// A new account. Where there is no file, it is made; beside it, in "<file>.key", the key by which listeners are known.
// Names are 1 to 255 bytes, without a colon and control characters, with no '#' in front and no blank at either end.
// Passwords are those of qorCreatePasswordHash, but not empty. qorError_user_exists: there is such an account.
inline bool qorAddDebugUser(const char* file, const char* name, const char* password) noexcept {
    return qor::glue::qorAddDebugUser(file, name, password);
}

// Another password for an account. qorError_no_such_user: there is none.
inline bool qorChangeDebugUser(const char* file, const char* name, const char* password) noexcept {
    return qor::glue::qorChangeDebugUser(file, name, password);
}

// qorError_no_such_user: there is none. Who is logged in stays so.
inline bool qorRemoveDebugUser(const char* file, const char* name) noexcept {
    return qor::glue::qorRemoveDebugUser(file, name);
}

// The names of all accounts, in place of what `names` held.
[[nodiscard]] inline bool qorGetDebugUsers(const char* file, qorStringArray& names) noexcept {
    return qor::glue::qorGetDebugUsers(file, names);
}

// The fingerprint of the key beside the accounts, by which a listener is known: 64 hexadecimal digits. No key is made.
[[nodiscard]] inline bool qorGetDebugKeyFingerprint(const char* file, qorString& fingerprint) noexcept {
    return qor::glue::qorGetDebugKeyFingerprint(file, fingerprint);
}
