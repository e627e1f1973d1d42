// UTF-8 from and to the system's UTF-16.
#include "platform/wide_windows.h"

#include <windows.h>

bool qor::platform::to_wide(std::string_view text, std::wstring& out) {
    out.clear();
    if (text.empty())
        return true;
    if (text.find('\0') != text.npos)
        return false;
    // A character takes at most as many units in UTF-16 as bytes in UTF-8.
    out.resize(text.size());
    const int length = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), static_cast<int>(text.size()),
                                           out.data(), static_cast<int>(out.size()));
    out.resize(static_cast<std::size_t>(length));
    return length != 0;
}

bool qor::platform::to_wide_path(std::string_view path, std::wstring& out) {
    if (!to_wide(path, out))
        return false;
    // A new folder's path may be that long, so that a file name of the oldest form still fits behind it.
    constexpr DWORD longest = MAX_PATH - 12;
    const DWORD room = GetFullPathNameW(out.c_str(), 0, nullptr, nullptr);
    if (room <= longest || out.starts_with(L"\\\\?\\") || out.starts_with(L"\\\\.\\"))
        return true;
    std::wstring full(room, L'\0');
    const DWORD length = GetFullPathNameW(out.c_str(), room, full.data(), nullptr);
    // The current folder may have changed in between; the system reports what it then finds.
    if (length == 0 || length >= room)
        return true;
    full.resize(length);
    out = full.starts_with(L"\\\\") ? L"\\\\?\\UNC\\" + full.substr(2) : L"\\\\?\\" + full;
    return true;
}

std::string qor::platform::from_wide(std::wstring_view text) {
    // A unit of UTF-16 takes at most three bytes in UTF-8.
    std::string out(text.size() * 3, '\0');
    const int length = text.empty() ? 0
                                    : WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                                          out.data(), static_cast<int>(out.size()), nullptr, nullptr);
    out.resize(static_cast<std::size_t>(length));
    return out;
}
