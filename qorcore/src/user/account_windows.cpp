// Windows accounts, of this computer or of a domain.
#include "error/error.h"
#include "platform/wide_windows.h"
#include "user/account.h"

#include <utility>

#include <windows.h> // before lm.h

#include <lm.h>

namespace {

using qor::platform::from_wide;

bool failed(const char* operation, DWORD code) {
    qor::error::set_with_reason(qorError_system, operation, static_cast<int>(code));
    return false;
}

// ---- netapi32, which only these operations need

struct net_api {
    decltype(&NetUserGetInfo) get_info = nullptr;
    decltype(&NetUserGetLocalGroups) get_groups = nullptr;
    decltype(&NetGetDCName) get_controller = nullptr;
    decltype(&NetApiBufferFree) free = nullptr;
    DWORD reason = 0; // why it is unavailable; 0 if it is available

    net_api() noexcept {
        const HMODULE library = LoadLibraryExW(L"netapi32.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
        const bool there = library != nullptr && find(library, "NetUserGetInfo", get_info) &&
                           find(library, "NetUserGetLocalGroups", get_groups) &&
                           find(library, "NetGetDCName", get_controller) && find(library, "NetApiBufferFree", free);
        reason = there ? 0 : GetLastError();
    }

    template <class FUNCTION>
    static bool find(HMODULE library, const char* name, FUNCTION& out) noexcept {
        out = reinterpret_cast<FUNCTION>(reinterpret_cast<void*>(GetProcAddress(library, name)));
        return out != nullptr;
    }
};

const net_api& net() noexcept {
    static const net_api loaded;
    return loaded;
}

// Owns a buffer that netapi32 allocates, and returns it to netapi32.
template <class TYPE>
class net_buffer {
public:
    net_buffer() noexcept = default;
    net_buffer(const net_buffer&) = delete;
    net_buffer& operator=(const net_buffer&) = delete;
    ~net_buffer() {
        if (m_data != nullptr)
            net().free(m_data);
    }
    BYTE** out() noexcept { return &m_data; }
    const TYPE* get() const noexcept { return reinterpret_cast<const TYPE*>(m_data); }

private:
    BYTE* m_data = nullptr;
};

// ---- names and identities

struct identity {
    std::wstring name;
    std::wstring domain;
    std::vector<BYTE> sid;
    bool is_user = false;
};

// Looks up a plain name, DOMAIN\name or name@domain. Returns 0 or the system's error code.
DWORD look_up(const std::wstring& name, identity& out) {
    DWORD sid_size = 0, domain_size = 0;
    SID_NAME_USE use;
    LookupAccountNameW(nullptr, name.c_str(), nullptr, &sid_size, nullptr, &domain_size, &use);
    if (const DWORD code = GetLastError(); code != ERROR_INSUFFICIENT_BUFFER)
        return code;
    out.sid.resize(sid_size);
    out.domain.resize(domain_size);
    if (!LookupAccountNameW(nullptr, name.c_str(), out.sid.data(), &sid_size, out.domain.data(), &domain_size, &use))
        return GetLastError();
    out.domain.resize(domain_size);
    const std::size_t begin = name.rfind(L'\\') + 1;
    out.name = name.substr(begin, name.find(L'@') - begin);
    out.is_user = use == SidTypeUser;
    return 0;
}

bool look_up(PSID sid, identity& out) {
    DWORD name_size = 0, domain_size = 0;
    SID_NAME_USE use;
    LookupAccountSidW(nullptr, sid, nullptr, &name_size, nullptr, &domain_size, &use);
    out.name.resize(name_size);
    out.domain.resize(domain_size);
    if (!LookupAccountSidW(nullptr, sid, out.name.data(), &name_size, out.domain.data(), &domain_size, &use))
        return failed("LookupAccountSidW", GetLastError());
    out.name.resize(name_size);
    out.domain.resize(domain_size);
    out.is_user = use == SidTypeUser;
    return true;
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

bool find_current(identity& out) {
    HANDLE token;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token))
        return failed("OpenProcessToken", GetLastError());
    const std::vector<BYTE> user = user_of(token);
    const DWORD code = GetLastError();
    CloseHandle(token);
    return user.empty() ? failed("GetTokenInformation", code) : look_up(sid_of(user), out);
}

// ---- accounts

// Finds the server that knows the account; null for this computer.
bool find_server(const identity& who, net_buffer<wchar_t>& server) {
    wchar_t computer[MAX_COMPUTERNAME_LENGTH + 1];
    DWORD length = MAX_COMPUTERNAME_LENGTH + 1;
    if (who.domain.empty() || !GetComputerNameW(computer, &length) || lstrcmpiW(computer, who.domain.c_str()) == 0)
        return true;
    const DWORD code = net().get_controller(nullptr, who.domain.c_str(), server.out());
    return code == NERR_Success || failed("NetGetDCName", code);
}

bool read_account(const identity& who, qor::user::account& out) {
    if (net().reason != 0)
        return failed("netapi32.dll", net().reason);
    net_buffer<wchar_t> server;
    if (!find_server(who, server))
        return false;
    net_buffer<USER_INFO_1> info;
    if (const DWORD code = net().get_info(server.get(), who.name.c_str(), 1, info.out()); code != NERR_Success)
        return failed("NetUserGetInfo", code);
    const USER_INFO_1& found = *info.get();
    out.name = from_wide(found.usri1_name);
    out.description = from_wide(found.usri1_comment != nullptr ? found.usri1_comment : L"");
    out.is_super_user = found.usri1_priv == USER_PRIV_ADMIN;
    if ((found.usri1_flags & (UF_ACCOUNTDISABLE | UF_LOCKOUT)) != 0)
        out.level = qorAuthLevel_none;
    else
        out.level = static_cast<int32>(found.usri1_priv); // Windows uses the same scale

    // The local groups of this computer, including indirect membership, because Windows grants rights through them.
    net_buffer<LOCALGROUP_USERS_INFO_0> groups;
    DWORD count = 0, total = 0;
    const std::wstring member = server.get() != nullptr ? who.domain + L'\\' + who.name : who.name;
    if (const DWORD code = net().get_groups(nullptr, member.c_str(), 0, LG_INCLUDE_INDIRECT, groups.out(),
                                            MAX_PREFERRED_LENGTH, &count, &total);
        code != NERR_Success)
        return failed("NetUserGetLocalGroups", code);
    for (DWORD i = 0; i < count; ++i)
        out.groups.push_back(from_wide(groups.get()[i].lgrui0_name));
    return true;
}

// Whether the name is that of a user; if it is not, sets the last error.
bool find_user(const char* name, identity& who) {
    std::wstring wide;
    DWORD code = ERROR_NONE_MAPPED;
    if (*name != '\0' && qor::platform::to_wide(name, wide))
        code = look_up(wide, who);
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
    return find_user(name, who) && read_account(who, out);
}

bool qor::user::current_account(account& out) {
    identity who;
    if (!find_current(who) || !read_account(who, out))
        return false;
    out.is_super_user = is_super_user();
    return true;
}

bool qor::user::current_name(std::string& out) {
    identity who;
    if (!find_current(who))
        return false;
    out = from_wide(who.name);
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
    return check_password(name, who, password) && read_account(who, out);
}
