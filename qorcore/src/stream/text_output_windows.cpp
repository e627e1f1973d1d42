#include "stream/text_output.h"

#include "error/error.h"

#include <io.h>
#include <windows.h>

bool qor::stream::is_terminal(std::FILE* stream) noexcept {
    const error::keep_failures keep;
    const int file = _fileno(stream);
    DWORD mode;
    return file >= 0 && GetConsoleMode(reinterpret_cast<HANDLE>(_get_osfhandle(file)), &mode) != 0;
}

void qor::stream::flush_standard_output() noexcept {
    const error::keep_failures keep;
    std::fflush(stdout);
}
