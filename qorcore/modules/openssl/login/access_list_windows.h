// Inside the module qor-openssl on Windows: who may do what, by an access control list. Tests pass lists of their own.
#pragma once

#include <windows.h>

namespace qor::control {

// Whether the account is the user, or can read and change everything anyway.
bool is_trusted(PSID sid, PSID user) noexcept;

// Whether no other account has one of these rights. A file without a list is open to everybody.
bool allows_only_trusted(PACL list, DWORD forbidden, PSID user) noexcept;

} // namespace qor::control
