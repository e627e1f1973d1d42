// Inside the Windows half of the library: what this computer and its domain know of accounts. Wine has no domains, so
// tests pass functions of their own.
#pragma once

#include "user/account.h"

#include <string>
#include <vector>

#include <windows.h> // before the two below

#include <dsgetdc.h>
#include <lm.h>

namespace qor::user {

// The functions of the system. Only these operations need netapi32, so it is loaded at the first use.
struct directory {
    decltype(&LookupAccountNameW) find_name = nullptr;
    decltype(&LookupAccountSidW) find_sid = nullptr;
    decltype(&NetUserGetInfo) get_info = nullptr;
    decltype(&NetUserGetLocalGroups) get_groups = nullptr;
    decltype(&DsGetDcNameW) get_controller = nullptr;
    decltype(&NetApiBufferFree) free = nullptr;
    DWORD reason = 0; // why netapi32 is unavailable; 0 if it is available
};
const directory& the_directory() noexcept;

// An account by the names that Windows has for it.
struct identity {
    std::wstring name;
    std::wstring domain; // or this computer
    std::vector<BYTE> sid;
    bool is_user = false; // not a group, a computer or an account of the system
};

// Looks up a plain name, DOMAIN\name or name@domain. Returns 0 or the system's error code.
DWORD look_up(const directory& from, const std::wstring& name, identity& out);
DWORD look_up(const directory& from, PSID sid, identity& out);

// Reads the rest. On false, the last error gives the reason.
bool read_account(const directory& from, const identity& who, account& out);

} // namespace qor::user
