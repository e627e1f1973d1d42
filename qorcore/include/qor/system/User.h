// User accounts of the host, and logon with a password. docs/users.md describes the results on each system.
#pragma once

#include "qor/glue/binding.h"
#include "qor/system/Interface.h"

#pragma push_macro("GetUserName")
#undef GetUserName // windows.h defines it as a macro for GetUserNameA or GetUserNameW; see LoadString (String.h)

class qorString;
class qorStringArray;

// A snapshot of one account. It is immutable; any thread may use it. It was taken when the token was created; for the
// account of the process, what IsSuperUser does not tell is read when it is first wanted. If that fails, the texts are
// empty, the level is qorAuthLevel_none, and the last error says why; the next call tries again. Later versions add
// operations only at the end.
class IQORUserToken : public IQORInterface {
public:
    // Linux: whether the account's number is 0. Windows: whether it is an administrator of this computer; for the token
    // of the process's own account, only if the process is elevated.
    virtual bool IsSuperUser() noexcept = 0;

    // Replaces the content of `out` by the name of the account.
    virtual void GetUserName(qorString& out) noexcept = 0;
#if defined(_WIN32)
    // For callers that have included windows.h. A class that implements the interface must do so before it includes
    // windows.h, or undefine GetUserName.
    void GetUserNameA(qorString& out) noexcept { GetUserName(out); }
    void GetUserNameW(qorString& out) noexcept { GetUserName(out); }
#endif

    // A text for people, often empty. Linux: the full name of the account. Windows: its description.
    virtual void GetDescription(qorString& out) noexcept = 0;

    // The names of all groups that the account belongs to, in no particular order. A group without a name appears as
    // its number.
    virtual void GetGroups(qorStringArray& out) noexcept = 0;

    // The rights of the account: one of qorAuthLevel. Later versions may return numbers between or above these.
    virtual int32 GetAuthLevel() noexcept = 0;

protected:
    ~IQORUserToken() = default;
};

#pragma pop_macro("GetUserName")

// The scale of GetAuthLevel. Accounts with a negative level cannot log in.
enum qorAuthLevel : int32 {
    qorAuthLevel_none = -1, // a service account, or disabled
    qorAuthLevel_guest = 0, // fewer rights than a user (Windows)
    qorAuthLevel_user = 1,
    qorAuthLevel_administrator = 2, // all rights (Linux: number 0; Windows: an administrator)
};

// Checks passwords; implemented by the module qor-pam. Any thread.
class IQORAuthenticator : public IQORInterface {
public:
    // Checks that the password belongs to the account and that the account may be used now, and stores the account's
    // name as the host spells it in `account`. Returns false on failure (last error). A wrong password takes as long as
    // the host wants it to.
    [[nodiscard]] virtual bool Authenticate(const char* name, const char* password, qorString& account) noexcept = 0;

protected:
    ~IQORAuthenticator() = default;
};

// All operations below that fail return false, set the last error and leave *out unchanged.

// The name of the account that the process runs as (its effective user), or its number if it has no name.
inline bool qorGetCurrentUserName(qorString& out) noexcept { return qor::glue::qorGetCurrentUserName(out); }

// Returns whether the process has super-user rights. Linux: its effective user is 0. Windows: it is an elevated
// administrator.
inline bool qorIsSuperUser() noexcept { return qor::glue::qorIsSuperUser(); }

// Gets an account by its name, without a password. qorError_unknown_user: there is no such account.
[[nodiscard]] inline bool qorGetUserToken(const char* name, IQORUserToken** out) noexcept {
    return qor::glue::qorGetUserToken(name, out);
}

// Gets the account that the process runs as now. Asks no server.
[[nodiscard]] inline bool qorGetCurrentUserToken(IQORUserToken** out) noexcept {
    return qor::glue::qorGetCurrentUserToken(out);
}

// Gets an account after the host has checked the password and that the account may be used. A wrong password and an
// unknown name give the same error, qorError_credentials_refused. If the password is right but the account cannot be
// used, the error says why: account_expired, account_locked, password_must_change, password_expired, logon_denied. An
// account with a negative level is denied, too. The password is not kept; the caller wipes its own copy.
[[nodiscard]] inline bool qorLogonUser(const char* name, const char* password, IQORUserToken** out) noexcept {
    return qor::glue::qorLogonUser(name, password, out);
}
