#include "stream/terminal.h"

#include "error/error.h"

#include <unistd.h>

bool qor::stream::is_terminal(std::FILE* stream) noexcept {
    const error::keep_failures keep;
    const int file = fileno(stream);
    return file >= 0 && isatty(file) != 0;
}

bool qor::stream::write_to_terminal(std::FILE* stream, std::string_view text) noexcept {
    return std::fwrite(text.data(), 1, text.size(), stream) == text.size();
}

qor::stream::line_end qor::stream::read_terminal_line(std::FILE*, qorString&,
                                                      void (*)(qorString&, const char*, unsigned) noexcept) noexcept {
    return line_end::use_stream;
}
