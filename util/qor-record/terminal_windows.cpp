#include "terminal.h"

#include "wide_text_windows.h"

#include <string>
#include <windows.h>

namespace qor::record {

// A console gets UTF-16, whatever its code page is; files and pipes get UTF-8. Lines end with CR LF.
void write_text(stream to, std::string_view text) {
    std::string lines;
    for (const char c : text) {
        if (c == '\n')
            lines.push_back('\r');
        lines.push_back(c);
    }
    const HANDLE file = GetStdHandle(to == stream::error ? STD_ERROR_HANDLE : STD_OUTPUT_HANDLE);
    DWORD mode, done;
    if (GetConsoleMode(file, &mode)) {
        const std::wstring shown = wide(lines);
        WriteConsoleW(file, shown.data(), static_cast<DWORD>(shown.size()), &done, nullptr);
    } else {
        WriteFile(file, lines.data(), static_cast<DWORD>(lines.size()), &done, nullptr);
    }
}

} // namespace qor::record
