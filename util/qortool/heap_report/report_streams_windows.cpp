#include "report_streams.h"

#include <windows.h>

namespace {

bool is_console(HANDLE stream) noexcept {
    DWORD mode;
    return GetConsoleMode(stream, &mode) != 0;
}

// Returns true for two handles of one open file or pipe, such as the shell makes for "2>&1". The function exists from
// Windows 10 on.
bool is_same_object(HANDLE a, HANDLE b) noexcept {
    using compare = BOOL(WINAPI*)(HANDLE, HANDLE);
    const auto function = reinterpret_cast<compare>(
        reinterpret_cast<void (*)()>(GetProcAddress(GetModuleHandleW(L"kernelbase.dll"), "CompareObjectHandles")));
    return function != nullptr && function(a, b) != 0;
}

} // namespace

bool streams_share_a_place() {
    const HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE);
    const HANDLE err = GetStdHandle(STD_ERROR_HANDLE);
    return (is_console(out) && is_console(err)) || is_same_object(out, err);
}
