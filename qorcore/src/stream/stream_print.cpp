// printf to a stream; its output does not depend on the locale.
#include "qor/qor.h"
#include "stream/text_output.h"
#include "string/format_fixed.h"

int qor::glue::fixed_vfprintf_sink(IQORStreamSink* sink, const char* format, std::va_list arguments) noexcept {
    qor::string::working_memory memory;
    std::string_view text;
    if (!qor::string::format_fixed(memory, text, format, arguments) || !qor::stream::write_text(*sink, text))
        return -1;
    return static_cast<int>(text.size());
}

int qor::glue::fixed_vfprintf(std::FILE* stream, const char* format, std::va_list arguments) noexcept {
    return ::fixed_vfprintf(stream, format, arguments);
}
