#include "common/system_reason.h"

#include <algorithm>
#include <iterator>
#include <windows.h>

std::string qor::modules::system_reason(int code) {
    wchar_t wide[512];
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                        static_cast<DWORD>(code), 0, wide, std::size(wide), nullptr);
    char text[3 * std::size(wide)];
    const int size =
        WideCharToMultiByte(CP_UTF8, 0, wide, static_cast<int>(length), text, sizeof text, nullptr, nullptr);
    std::string reason(text, static_cast<std::size_t>(std::max(size, 0)));
    // The text ends with a full stop and a line end.
    reason.erase(reason.find_last_not_of(" .\r\n") + 1);
    return reason.empty() ? "error " + std::to_string(code) : reason;
}
