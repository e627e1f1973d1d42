#include "stream/text_output.h"

#include "error/error.h"

#include <stdio_ext.h>
#include <unistd.h>

bool qor::stream::is_terminal(std::FILE* stream) noexcept {
    const error::keep_failures keep;
    const int file = fileno(stream);
    return file >= 0 && isatty(file) != 0;
}

void qor::stream::flush_standard_output() noexcept {
    const error::keep_failures keep;
    // Text that goes into a buffer is not written yet: who gave standard error one sees to the order, as a replay does.
    if (__fbufsize(stderr) > 1)
        return;
    // Another thread may be writing, for as long as nobody reads: its text cannot be made to come first.
    if (ftrylockfile(stdout) != 0)
        return;
    std::fflush(stdout);
    funlockfile(stdout);
}
