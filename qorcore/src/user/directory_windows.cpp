#include "user/directory_windows.h"

#include "error/error.h"
#include "platform/wide_windows.h"

#include <algorithm>

namespace {

using qor::platform::from_wide;
using qor::user::directory;
using qor::user::identity;

bool failed(const char* operation, DWORD code) {
    qor::error::set_with_reason(qorError_system, operation, static_cast<int>(code));
    return false;
}

directory load() noexcept {
    directory made;
    made.find_name = LookupAccountNameW;
    made.find_sid = LookupAccountSidW;
    const HMODULE library = LoadLibraryExW(L"netapi32.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    const auto find = [library](const char* name, auto& out) {
        out = reinterpret_cast<std::remove_reference_t<decltype(out)>>(
            reinterpret_cast<void*>(GetProcAddress(library, name)));
        return out != nullptr;
    };
    const bool is_there = library != nullptr && find("NetUserGetInfo", made.get_info) &&
                          find("NetUserGetLocalGroups", made.get_groups) && find("DsGetDcNameW", made.get_controller) &&
                          find("NetApiBufferFree", made.free);
    made.reason = is_there ? 0 : GetLastError();
    return made;
}

// Owns a buffer that netapi32 allocates, and returns it to netapi32.
template <class TYPE>
class net_buffer {
public:
    explicit net_buffer(const directory& from) noexcept : m_from(from) {}
    net_buffer(const net_buffer&) = delete;
    net_buffer& operator=(const net_buffer&) = delete;
    ~net_buffer() { clear(); }
    void clear() noexcept {
        if (m_data != nullptr)
            m_from.free(m_data);
        m_data = nullptr;
    }
    TYPE** out() noexcept { return &m_data; }
    BYTE** bytes() noexcept { return reinterpret_cast<BYTE**>(&m_data); }
    const TYPE* get() const noexcept { return m_data; }

private:
    const directory& m_from;
    TYPE* m_data = nullptr;
};

// As the system compares names. A comparison by the rules of a language would ignore some characters, and take a group
// that looks like the administrators' for theirs.
bool is_same_name(const std::wstring& left, const std::wstring& right) noexcept {
    return CompareStringOrdinal(left.c_str(), -1, right.c_str(), -1, TRUE) == CSTR_EQUAL;
}

bool is_of_this_computer(const identity& who) {
    wchar_t computer[MAX_COMPUTERNAME_LENGTH + 1];
    DWORD length = MAX_COMPUTERNAME_LENGTH + 1;
    return who.domain.empty() || !GetComputerNameW(computer, &length) || is_same_name(computer, who.domain);
}

// The known server cannot be reached; another one may.
bool is_server_gone(DWORD code) noexcept {
    return code == ERROR_BAD_NETPATH || code == RPC_S_SERVER_UNAVAILABLE || code == NERR_InvalidComputer;
}

// Asks the computer that keeps the account.
bool get_info(const directory& from, const identity& who, bool is_local, net_buffer<USER_INFO_1>& out) {
    net_buffer<DOMAIN_CONTROLLER_INFOW> controller(from);
    DWORD code = NERR_Success;
    for (const ULONG more : {0, DS_FORCE_REDISCOVERY}) {
        controller.clear();
        if (!is_local)
            if (const DWORD reason = from.get_controller(nullptr, who.domain.c_str(), nullptr, nullptr,
                                                         DS_IS_FLAT_NAME | more, controller.out()))
                return failed("DsGetDcNameW", reason);
        code = from.get_info(is_local ? nullptr : controller.get()->DomainControllerName, who.name.c_str(), 1,
                             out.bytes());
        if (is_local || !is_server_gone(code))
            break;
    }
    return code == NERR_Success || failed("NetUserGetInfo", code);
}

// Whether one of the groups is this one of every computer, whatever its name in the computer's language.
bool contains(const directory& from, const std::vector<std::wstring>& groups, WELL_KNOWN_SID_TYPE which) {
    BYTE sid[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof sid;
    identity known;
    return CreateWellKnownSid(which, nullptr, sid, &size) && look_up(from, sid, known) == 0 &&
           std::ranges::any_of(groups, [&](const std::wstring& each) { return is_same_name(each, known.name); });
}

} // namespace

const qor::user::directory& qor::user::the_directory() noexcept {
    static const directory loaded = load();
    return loaded;
}

// The name that was asked for may be another than that of the account: in name@domain, the administrator chooses the
// name freely. The SID leads to the account's own.
DWORD qor::user::look_up(const directory& from, const std::wstring& name, identity& out) {
    DWORD sid_size = 0, domain_size = 0;
    SID_NAME_USE use;
    from.find_name(nullptr, name.c_str(), nullptr, &sid_size, nullptr, &domain_size, &use);
    if (const DWORD code = GetLastError(); code != ERROR_INSUFFICIENT_BUFFER)
        return code;
    std::vector<BYTE> sid(sid_size);
    std::wstring domain(domain_size, L'\0');
    if (!from.find_name(nullptr, name.c_str(), sid.data(), &sid_size, domain.data(), &domain_size, &use))
        return GetLastError();
    return look_up(from, sid.data(), out);
}

DWORD qor::user::look_up(const directory& from, PSID sid, identity& out) {
    const auto* const begin = static_cast<const BYTE*>(sid);
    out.sid.assign(begin, begin + GetLengthSid(sid));
    DWORD name_size = 0, domain_size = 0;
    SID_NAME_USE use;
    from.find_sid(nullptr, sid, nullptr, &name_size, nullptr, &domain_size, &use);
    out.name.resize(name_size);
    out.domain.resize(domain_size);
    if (!from.find_sid(nullptr, sid, out.name.data(), &name_size, out.domain.data(), &domain_size, &use))
        return GetLastError();
    out.name.resize(name_size);
    out.domain.resize(domain_size);
    out.is_user = use == SidTypeUser;
    return 0;
}

bool qor::user::read_account(const directory& from, const identity& who, account& out) {
    out.name = from_wide(who.name);
    // No directory has the accounts of the system and of its services, and nobody logs on with them.
    if (!who.is_user) {
        out.level = qorAuthLevel_none;
        return true;
    }
    if (from.reason != 0)
        return failed("netapi32.dll", from.reason);
    const bool is_local = is_of_this_computer(who);
    net_buffer<USER_INFO_1> info(from);
    if (!get_info(from, who, is_local, info))
        return false;
    const USER_INFO_1& found = *info.get();
    out.description = from_wide(found.usri1_comment != nullptr ? found.usri1_comment : L"");

    // The local groups of this computer, including indirect membership, because Windows grants rights through them. The
    // rights that the account has at the controller of its domain are others.
    net_buffer<LOCALGROUP_USERS_INFO_0> list(from);
    DWORD count = 0, total = 0;
    const std::wstring member = is_local ? who.name : who.domain + L'\\' + who.name;
    if (const DWORD code = from.get_groups(nullptr, member.c_str(), 0, LG_INCLUDE_INDIRECT, list.bytes(),
                                           MAX_PREFERRED_LENGTH, &count, &total);
        code != NERR_Success)
        return failed("NetUserGetLocalGroups", code);
    std::vector<std::wstring> groups;
    for (DWORD i = 0; i < count; ++i)
        groups.emplace_back(list.get()[i].lgrui0_name);
    for (const std::wstring& group : groups)
        out.groups.push_back(from_wide(group));
    out.is_super_user = contains(from, groups, WinBuiltinAdministratorsSid);
    if ((found.usri1_flags & (UF_ACCOUNTDISABLE | UF_LOCKOUT)) != 0)
        out.level = qorAuthLevel_none;
    else if (out.is_super_user)
        out.level = qorAuthLevel_administrator;
    else if (contains(from, groups, WinBuiltinGuestsSid) && !contains(from, groups, WinBuiltinUsersSid))
        out.level = qorAuthLevel_guest;
    else
        out.level = qorAuthLevel_user;
    return true;
}
