#include "stream/terminal.h"

#include "stream/text_output.h"

bool qor::stream::write_to_terminal(IQORStreamSink& sink, int64, std::string_view text, int& failure) noexcept {
    return write_bytes(sink, text, failure);
}

qor::stream::line_end qor::stream::read_terminal_line(IQORStreamSource&, qorString&,
                                                      void (*)(qorString&, const char*, uint32) noexcept,
                                                      int&) noexcept {
    return line_end::use_stream;
}
