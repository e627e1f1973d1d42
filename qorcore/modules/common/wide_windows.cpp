#include "common/wide_windows.h"

#include <windows.h>

std::wstring qor::modules::to_wide(std::string_view text) {
    // A character takes at most as many units in UTF-16 as bytes in UTF-8.
    std::wstring out(text.size(), L'\0');
    const int length = text.empty() ? 0
                                    : MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                                          out.data(), static_cast<int>(out.size()));
    out.erase(static_cast<std::size_t>(length));
    return out;
}

std::string qor::modules::from_wide(std::wstring_view text) {
    // A unit of UTF-16 takes at most three bytes in UTF-8.
    std::string out(text.size() * 3, '\0');
    const int length = text.empty() ? 0
                                    : WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                                          out.data(), static_cast<int>(out.size()), nullptr, nullptr);
    out.erase(static_cast<std::size_t>(length));
    return out;
}
