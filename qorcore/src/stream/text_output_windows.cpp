#include "stream/text_output.h"

#include "error/error.h"

void qor::stream::flush_standard_output() noexcept {
    const error::keep_failures keep;
    std::fflush(stdout);
}
