#include "terminal.h"

#include <windows.h>

namespace qor::heap_tool {

namespace {

bool is_console(DWORD stream) noexcept {
    DWORD mode;
    return GetConsoleMode(GetStdHandle(stream), &mode) != 0;
}

} // namespace

bool error_is_terminal() noexcept { return is_console(STD_ERROR_HANDLE); }
bool output_is_terminal() noexcept { return is_console(STD_OUTPUT_HANDLE); }

unsigned output_height() noexcept {
    CONSOLE_SCREEN_BUFFER_INFO screen;
    return GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &screen) != 0
               ? static_cast<unsigned>(screen.srWindow.Bottom - screen.srWindow.Top + 1)
               : 0;
}

// libqor knows this name on every system.
const char* standard_input() noexcept { return "/dev/stdin"; }

} // namespace qor::heap_tool
