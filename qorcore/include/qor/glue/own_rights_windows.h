// The rights of a file that only the user who runs this process may use. For files that a program stores.
#pragma once

#include "qor/glue/impl_windows.h"

#include <windows.h>

#include <aclapi.h>
#include <vector>

namespace qor::glue {

// Returns the user who runs this process: a TOKEN_USER together with the SID that it points to. Empty if the system
// does not report it.
inline std::vector<unsigned char> current_user() {
    HANDLE token;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token))
        return {};
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    std::vector<unsigned char> user(size);
    if (!GetTokenInformation(token, TokenUser, user.data(), size, &size))
        user.clear();
    CloseHandle(token);
    return user;
}

// The SID in such a user.
inline PSID sid_of(const std::vector<unsigned char>& user) {
    return reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid;
}

// The rights of a new file: all for the user, none for others, regardless of the folder's rights.
class own_rights {
public:
    own_rights() : m_user(current_user()) {
        if (m_user.empty())
            return;
        EXPLICIT_ACCESS_W entry{};
        entry.grfAccessPermissions = GENERIC_ALL;
        entry.grfAccessMode = SET_ACCESS;
        entry.grfInheritance = NO_INHERITANCE;
        entry.Trustee.TrusteeForm = TRUSTEE_IS_SID;
        entry.Trustee.ptstrName = static_cast<wchar_t*>(sid_of(m_user));
        if (SetEntriesInAclW(1, &entry, nullptr, &m_list) != ERROR_SUCCESS)
            return;
        m_is_made = InitializeSecurityDescriptor(&m_descriptor, SECURITY_DESCRIPTOR_REVISION) &&
                    SetSecurityDescriptorDacl(&m_descriptor, TRUE, m_list, FALSE) &&
                    SetSecurityDescriptorControl(&m_descriptor, SE_DACL_PROTECTED, SE_DACL_PROTECTED);
    }
    own_rights(const own_rights&) = delete;
    own_rights& operator=(const own_rights&) = delete;
    ~own_rights() { LocalFree(m_list); }

    // Null if they could not be made; the system's last error gives the reason.
    SECURITY_ATTRIBUTES* get() noexcept { return m_is_made ? &m_attributes : nullptr; }

private:
    std::vector<unsigned char> m_user;
    PACL m_list = nullptr;
    SECURITY_DESCRIPTOR m_descriptor{};
    SECURITY_ATTRIBUTES m_attributes{sizeof(SECURITY_ATTRIBUTES), &m_descriptor, FALSE};
    bool m_is_made = false;
};

} // namespace qor::glue
