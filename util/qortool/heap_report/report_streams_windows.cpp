#include "report_streams.h"

#include <windows.h>

namespace {

bool is_console(HANDLE stream) noexcept {
    DWORD mode;
    return GetConsoleMode(stream, &mode) != 0;
}

// Two handles of one open file or pipe, as the shell makes them for "2>&1". Windows 10 is the first that can tell.
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
