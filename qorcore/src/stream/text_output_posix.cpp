#include "stream/text_output.h"

#include "error/error.h"

#include <unistd.h>

bool qor::stream::is_terminal(std::FILE* stream) noexcept {
    const error::keep_failures keep;
    const int file = fileno(stream);
    return file >= 0 && isatty(file) != 0;
}

void qor::stream::flush_standard_output() noexcept {
    const error::keep_failures keep;
    // Another thread may be writing, for as long as nobody reads: its text cannot be made to come first.
    if (ftrylockfile(stdout) != 0)
        return;
    std::fflush(stdout);
    funlockfile(stdout);
}
