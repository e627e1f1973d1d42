// User accounts of the host, and logging on with a password. docs/users.md tells what the figures mean on each system.
#pragma once

#include "qor/glue/binding.h"
#include "qor/system/Interface.h"

#pragma push_macro("GetUserName")
#undef GetUserName // windows.h makes it a macro for GetUserNameA or GetUserNameW, as LoadString (String.h)

class qorString;
class qorStringArray;

// One account, as it was when the token was made; it does not change and may be used on any thread. New operations are
// added behind the others.
class IQORUserToken : public IQORInterface {
public:
    // Linux: the account's number is 0. Windows: it is an administrator; the token of the process's own account says
    // true only where the process has been given these rights (is "elevated").
    virtual bool IsSuperUser() noexcept = 0;

    // The name of the account, in place of what `out` held.
    virtual void GetUserName(qorString& out) noexcept = 0;
#if defined(_WIN32)
    // For callers that have included windows.h. A class that implements the interface does so before it includes
    // windows.h, or undefines GetUserName.
    void GetUserNameA(qorString& out) noexcept { GetUserName(out); }
    void GetUserNameW(qorString& out) noexcept { GetUserName(out); }
#endif

    // For people to read; often empty. Linux: the full name of the account. Windows: its description.
    virtual void GetDescription(qorString& out) noexcept = 0;

    // Every group that the account belongs to, in no promised order. A group without a name is its number.
    virtual void GetGroups(qorStringArray& out) noexcept = 0;

    // What the account may do: one of qorAuthLevel, or a number between or above these that is still to come.
    virtual int32 GetAuthLevel() noexcept = 0;

protected:
    ~IQORUserToken() = default;
};

#pragma pop_macro("GetUserName")

// The scale of GetAuthLevel. Negative levels may not log in at all.
enum qorAuthLevel : int32 {
    qorAuthLevel_none = -1, // it exists for the sake of a service, or is switched off
    qorAuthLevel_guest = 0, // less than a user (Windows)
    qorAuthLevel_user = 1,
    qorAuthLevel_administrator = 2, // everything (Linux: number 0; Windows: an administrator)
};

// Checks passwords: what the module qor-pam offers. Any thread.
class IQORAuthenticator : public IQORInterface {
public:
    // Whether this is the password of this account and the account may be used now. `account` is then the account's
    // name, as the host has it. False: the last error says why. A wrong password takes as long as the host wants it to
    // take.
    [[nodiscard]] virtual bool Authenticate(const char* name, const char* password, qorString& account) noexcept = 0;

protected:
    ~IQORAuthenticator() = default;
};

// All of these return false with the last error where something fails; *out is then as it was.

// The name of the account that the process runs as (its effective user); the number where it has no name.
inline bool qorGetCurrentUserName(qorString& out) noexcept { return qor::glue::qorGetCurrentUserName(out); }

// Whether the process has super-user rights. Linux: its effective user is 0. Windows: it is an elevated administrator.
inline bool qorIsSuperUser() noexcept { return qor::glue::qorIsSuperUser(); }

// The account of this name; no password is asked for. qorError_unknown_user: there is none.
[[nodiscard]] inline bool qorGetUserToken(const char* name, IQORUserToken** out) noexcept {
    return qor::glue::qorGetUserToken(name, out);
}

// The account that the process runs as.
[[nodiscard]] inline bool qorGetCurrentUserToken(IQORUserToken** out) noexcept {
    return qor::glue::qorGetCurrentUserToken(out);
}

// The account, once the host has found the password right and the account fit for use. A wrong password and an unknown
// name are one error, qorError_credentials_refused; those who know the password are told of what else is in the way:
// account_expired, account_locked, password_must_change, password_expired, logon_denied. An account whose level is
// negative is denied, too. The password is not kept; wiping the caller's own copy is for the caller.
[[nodiscard]] inline bool qorLogonUser(const char* name, const char* password, IQORUserToken** out) noexcept {
    return qor::glue::qorLogonUser(name, password, out);
}
