// Inside the library: where the user's languages are set.
#pragma once

namespace qor::catalog {

// The value of LANGUAGE, LC_ALL, LC_MESSAGES or LANG; null: it is unset or empty. Where the system keeps the user's
// languages elsewhere and none of them is set, the system's list stands for LANGUAGE.
const char* user_setting(const char* variable) noexcept;

} // namespace qor::catalog
