#include "stream/text_output.h"

#include "error/error.h"

#include <stdio_ext.h>

void qor::stream::flush_standard_output() noexcept {
    const error::keep_failures keep;
    // If the host gave standard error a buffer, this text is not written yet, so the host is responsible for the order.
    if (__fbufsize(stderr) > 1)
        return;
    // Another thread may be writing, and may be blocked because nobody reads. The order with its text cannot be kept.
    if (ftrylockfile(stdout) != 0)
        return;
    std::fflush(stdout);
    funlockfile(stdout);
}
