// Windows accounts, of this computer or of a domain.
#include "error/error.h"
#include "platform/wide_windows.h"
#include "user/directory_windows.h"

#include <utility>

namespace {

using qor::user::identity;
using qor::user::the_directory;

bool failed(const char* operation, DWORD code) {
    qor::error::set_with_reason(qorError_system, operation, static_cast<int>(code));
    return false;
}

// Returns the user of a token: a TOKEN_USER together with the SID that it points to. Empty if the system does not
// report it.
std::vector<BYTE> user_of(HANDLE token) {
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    std::vector<BYTE> user(size);
    if (size == 0 || !GetTokenInformation(token, TokenUser, user.data(), size, &size))
        user.clear();
    return user;
}

PSID sid_of(const std::vector<BYTE>& user) noexcept {
    return reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid;
}

// The SID of the user who runs this process. Empty on failure, and the last error gives the reason.
std::vector<BYTE> current_sid() {
    HANDLE token;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) {
        failed("OpenProcessToken", GetLastError());
        return {};
    }
    const std::vector<BYTE> user = user_of(token);
    const DWORD code = GetLastError();
    CloseHandle(token);
    if (user.empty()) {
        failed("GetTokenInformation", code);
        return {};
    }
    const auto* const sid = static_cast<const BYTE*>(sid_of(user));
    return {sid, sid + GetLengthSid(sid_of(user))};
}

bool find_user_of(const std::vector<BYTE>& sid, identity& out) {
    const DWORD code = look_up(the_directory(), const_cast<BYTE*>(sid.data()), out);
    return code == 0 || failed("LookupAccountSidW", code);
}

// Whether the name is that of a user; if it is not, sets the last error.
bool find_user(const char* name, identity& who) {
    std::wstring wide;
    DWORD code = ERROR_NONE_MAPPED;
    if (*name != '\0' && qor::platform::to_wide(name, wide))
        code = look_up(the_directory(), wide, who);
    if (code != 0 && code != ERROR_NONE_MAPPED)
        return failed("LookupAccountNameW", code);
    if (code == 0 && who.is_user)
        return true;
    qor::error::set(qorError_unknown_user, {name});
    return false;
}

// ---- log-on

bool refused(const char* name, DWORD code) {
    switch (code) {
    case ERROR_LOGON_FAILURE:
    case ERROR_NO_SUCH_USER:
    case ERROR_WRONG_PASSWORD:
        qor::error::set(qorError_credentials_refused);
        return false;
    case ERROR_ACCOUNT_EXPIRED:
        qor::error::set(qorError_account_expired, {name});
        return false;
    case ERROR_ACCOUNT_DISABLED:
    case ERROR_ACCOUNT_LOCKED_OUT:
        qor::error::set(qorError_account_locked, {name});
        return false;
    case ERROR_PASSWORD_MUST_CHANGE:
        qor::error::set(qorError_password_must_change, {name});
        return false;
    case ERROR_PASSWORD_EXPIRED:
        qor::error::set(qorError_password_expired, {name});
        return false;
    case ERROR_ACCOUNT_RESTRICTION:
    case ERROR_INVALID_LOGON_HOURS:
    case ERROR_INVALID_WORKSTATION:
    case ERROR_LOGON_TYPE_NOT_GRANTED:
        qor::error::set(qorError_logon_denied, {name});
        return false;
    default:
        qor::error::set(qorError_logon_failed,
                        {"LogonUserW", qor::error::system_reason(static_cast<int>(code)).c_str()});
        return false;
    }
}

bool check_password(const char* name, const identity& who, const char* password) {
    std::wstring wide;
    if (!qor::platform::to_wide(password, wide)) {
        qor::error::set(qorError_credentials_refused);
        return false;
    }
    HANDLE token = nullptr;
    const BOOL done = LogonUserW(who.name.c_str(), who.domain.c_str(), wide.c_str(), LOGON32_LOGON_NETWORK,
                                 LOGON32_PROVIDER_DEFAULT, &token);
    const DWORD code = GetLastError();
    SecureZeroMemory(wide.data(), wide.size() * sizeof wide[0]);
    if (!done)
        return refused(name, code);
    // The system may log on the caller as a guest instead.
    const std::vector<BYTE> user = user_of(token);
    CloseHandle(token);
    if (!user.empty() && EqualSid(sid_of(user), const_cast<BYTE*>(who.sid.data())))
        return true;
    qor::error::set(qorError_credentials_refused);
    return false;
}

} // namespace

bool qor::user::find_account(const char* name, account& out) {
    identity who;
    return find_user(name, who) && read_account(the_directory(), who, out);
}

bool qor::user::current_account(account_reader& out) {
    std::vector<BYTE> sid = current_sid();
    if (sid.empty())
        return false;
    out = [sid = std::move(sid)](account& found) {
        identity who;
        return find_user_of(sid, who) && read_account(the_directory(), who, found);
    };
    return true;
}

bool qor::user::current_name(std::string& out) {
    const std::vector<BYTE> sid = current_sid();
    identity who;
    if (sid.empty() || !find_user_of(sid, who))
        return false;
    out = platform::from_wide(who.name);
    return true;
}

// Returns false if the group is only used to deny access, as for an administrator who is not elevated.
bool qor::user::is_super_user() noexcept {
    BYTE administrators[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof administrators;
    BOOL member = FALSE;
    return CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators, &size) &&
           CheckTokenMembership(nullptr, administrators, &member) && member;
}

bool qor::user::log_on(const char* name, const char* password, account& out) {
    identity who;
    if (!find_user(name, who)) {
        // The error does not reveal whether the name or the password was wrong.
        zetSmartPointer<IQORErrorMessage> error;
        qorGetLastError(error.Out());
        if (error->GetErrorNumber() == qorError_unknown_user)
            error::set(qorError_credentials_refused);
        return false;
    }
    return check_password(name, who, password) && read_account(the_directory(), who, out);
}
