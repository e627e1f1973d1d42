#include "catalog/user_settings.h"

#include "platform/own_process.h"
#include "platform/wide_windows.h"

#include <string>
#include <string_view>
#include <windows.h>

namespace {

bool any_is_set() noexcept {
    for (const char* const variable : {"LC_ALL", "LC_MESSAGES", "LANG"})
        if (qor::platform::environment(variable) != nullptr)
            return true;
    return false;
}

// The user's display languages, the best first: "de-DE:en-US".
std::string languages_of_screens() {
    ULONG count = 0;
    ULONG size = 0;
    if (!GetUserPreferredUILanguages(MUI_LANGUAGE_NAME, &count, nullptr, &size))
        return {};
    std::wstring names(size, L'\0');
    if (!GetUserPreferredUILanguages(MUI_LANGUAGE_NAME, &count, names.data(), &size))
        return {};
    // Each name ends with a NUL, and the list with one more.
    while (!names.empty() && names.back() == L'\0')
        names.pop_back();
    for (wchar_t& c : names)
        if (c == L'\0')
            c = L':';
    return qor::platform::from_wide(names);
}

} // namespace

const char* qor::catalog::user_setting(const char* variable) noexcept {
    const char* const value = platform::environment(variable);
    if (value != nullptr || std::string_view(variable) != "LANGUAGE" || any_is_set())
        return value;
    static const std::string& languages = *new std::string(languages_of_screens());
    return languages.empty() ? nullptr : languages.c_str();
}
