// The C++ library's texts have the encoding of the system's code page.
#include "system_reason.h"

#include <iterator>
#include <windows.h>

std::string qor::compression::system_reason(int code) {
    wchar_t text[512];
    DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                  static_cast<DWORD>(code), 0, text, std::size(text), nullptr);
    // The text ends with a full stop and a line end.
    while (length != 0 && (text[length - 1] <= L' ' || text[length - 1] == L'.'))
        --length;
    if (length == 0)
        return "error " + std::to_string(code);
    char narrow[3 * std::size(text)];
    const int size =
        WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(length), narrow, sizeof narrow, nullptr, nullptr);
    return {narrow, static_cast<std::size_t>(size)};
}
