// Inside the library: the user's settings for languages.
#pragma once

namespace qor::catalog {

// Returns the value of LANGUAGE, LC_ALL, LC_MESSAGES or LANG, or null if it is unset or empty. On a system that stores
// the user's languages elsewhere, that list serves as LANGUAGE if none of the variables is set.
const char* user_setting(const char* variable) noexcept;

} // namespace qor::catalog
