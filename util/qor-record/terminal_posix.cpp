#include "terminal.h"

#include <cstdio>

namespace qor::record {

void write_text(stream to, std::string_view text) {
    std::FILE* const file = to == stream::error ? stderr : stdout;
    std::fwrite(text.data(), 1, text.size(), file);
    std::fflush(file);
}

} // namespace qor::record
