// Paths of any length for the functions of the system. For the sources of the library, its modules and its tools.
#pragma once

#include "qor/glue/impl_windows.h"

#include <windows.h>

#include <string>
#include <string_view>

namespace qor::glue {

// The system takes a longer path only in a form without "." and "..". A folder must leave room for a name of 12
// characters, so this is the limit for all paths.
inline constexpr std::size_t longest_plain_path = MAX_PATH - 13;

// Gives a path the form in which the system takes it in any length, if it is longer than `most`. A short one stays,
// since names of devices are known only in the plain form.
inline void lift_path_limit(std::wstring& path, std::size_t most = longest_plain_path) {
    if (path.starts_with(L"\\\\?\\") || path.starts_with(L"\\\\.\\"))
        return;
    std::wstring full(GetFullPathNameW(path.c_str(), 0, nullptr, nullptr), L'\0');
    const DWORD length = GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    if (length == 0 || length >= full.size())
        return; // the system says why it does not take the path
    full.resize(length);
    if ((path.size() <= most && full.size() <= most) || full.starts_with(L"\\\\.\\"))
        return;
    if (full.starts_with(L"\\\\?\\"))
        path = full; // it had other slashes
    else
        path = full.starts_with(L"\\\\") ? L"\\\\?\\UNC" + full.substr(1) : L"\\\\?\\" + full;
}

// The path in UTF-16, in that form; empty if it is not UTF-8.
inline std::wstring wide_path(std::string_view path) {
    std::wstring out(path.size(), L'\0');
    out.resize(static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path.data(),
                                                            static_cast<int>(path.size()), out.data(),
                                                            static_cast<int>(out.size()))));
    lift_path_limit(out);
    return out;
}

} // namespace qor::glue
