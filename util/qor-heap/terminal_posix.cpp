#include "terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace qor::heap_tool {

bool error_is_terminal() noexcept { return ::isatty(STDERR_FILENO) == 1; }
bool output_is_terminal() noexcept { return ::isatty(STDOUT_FILENO) == 1; }

unsigned output_height() noexcept {
    winsize size;
    return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_row : 0;
}

const char* standard_input() noexcept { return "/dev/stdin"; }

} // namespace qor::heap_tool
