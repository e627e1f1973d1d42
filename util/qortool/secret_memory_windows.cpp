#include "secret_memory.h"

#include <cstdlib>
#include <windows.h>

void wipe(void* memory, std::size_t size) noexcept { SecureZeroMemory(memory, size); }

// Other processes can read the wide line; the system and the C library made the other copies at the start. Quoting
// makes it hard to find one argument in them, so the whole text is overwritten.
void wipe_system_command_line() noexcept {
    wchar_t* const line = GetCommandLineW();
    wipe(line, lstrlenW(line) * sizeof *line);
    char* const narrow = GetCommandLineA();
    wipe(narrow, static_cast<std::size_t>(lstrlenA(narrow)));
    for (int i = 1; i < __argc; ++i)
        if (__wargv != nullptr)
            wipe(__wargv[i], lstrlenW(__wargv[i]) * sizeof *__wargv[i]);
}
