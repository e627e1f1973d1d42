#include "access_list_windows.h"

#include <cstddef>

namespace {

// Where the account stands in an entry that allows something. Null if the entry is damaged, or of a form that we do not
// know.
PSID account_in(const ACE_HEADER* entry) noexcept {
    std::size_t at = 0;
    switch (entry->AceType) {
    case ACCESS_ALLOWED_ACE_TYPE:
    case ACCESS_ALLOWED_CALLBACK_ACE_TYPE: // a condition follows the account; it may hold at any time
        at = offsetof(ACCESS_ALLOWED_ACE, SidStart);
        break;
    case ACCESS_ALLOWED_OBJECT_ACE_TYPE:
    case ACCESS_ALLOWED_CALLBACK_OBJECT_ACE_TYPE: {
        at = offsetof(ACCESS_ALLOWED_OBJECT_ACE, ObjectType);
        if (entry->AceSize < at)
            return nullptr;
        const DWORD flags = reinterpret_cast<const ACCESS_ALLOWED_OBJECT_ACE*>(entry)->Flags;
        at += (flags & ACE_OBJECT_TYPE_PRESENT) != 0 ? sizeof(GUID) : 0;
        at += (flags & ACE_INHERITED_OBJECT_TYPE_PRESENT) != 0 ? sizeof(GUID) : 0;
        break;
    }
    default:
        return nullptr;
    }
    auto* const sid = reinterpret_cast<SID*>(reinterpret_cast<BYTE*>(const_cast<ACE_HEADER*>(entry)) + at);
    constexpr std::size_t head = offsetof(SID, SubAuthority);
    const bool is_whole = entry->AceSize >= at + head && entry->AceSize >= at + head + sid->SubAuthorityCount * 4u;
    return is_whole && IsValidSid(sid) ? sid : nullptr;
}

// Whether an entry gives no right to anybody.
bool allows_nothing(const ACE_HEADER* entry) noexcept {
    switch (entry->AceType) {
    case ACCESS_DENIED_ACE_TYPE:
    case ACCESS_DENIED_OBJECT_ACE_TYPE:
    case ACCESS_DENIED_CALLBACK_ACE_TYPE:
    case ACCESS_DENIED_CALLBACK_OBJECT_ACE_TYPE:
        return true;
    default:
        return (entry->AceFlags & INHERIT_ONLY_ACE) != 0;
    }
}

} // namespace

bool qor::control::is_trusted(PSID sid, PSID user) noexcept {
    return EqualSid(sid, user) || IsWellKnownSid(sid, WinLocalSystemSid) ||
           IsWellKnownSid(sid, WinBuiltinAdministratorsSid) || IsWellKnownSid(sid, WinCreatorOwnerRightsSid);
}

bool qor::control::allows_only_trusted(PACL list, DWORD forbidden, PSID user) noexcept {
    if (list == nullptr)
        return false;
    for (DWORD i = 0; i < list->AceCount; ++i) {
        void* at;
        if (!GetAce(list, i, &at))
            return false;
        const auto* const entry = static_cast<const ACE_HEADER*>(at);
        if (allows_nothing(entry))
            continue;
        const PSID account = account_in(entry);
        if (account == nullptr)
            return false;
        // The mask is at the same place in all forms.
        if ((static_cast<const ACCESS_ALLOWED_ACE*>(at)->Mask & forbidden) != 0 && !is_trusted(account, user))
            return false;
    }
    return true;
}
