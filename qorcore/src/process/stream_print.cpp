// printf to a stream, with a result that no locale changes.
#include "qor/qor.h"

int qor::glue::fixed_vfprintf(std::FILE* stream, const char* format, std::va_list arguments) noexcept {
    qorString text;
    text.PrintV(format, arguments);
    return text.Put(stream, false) ? static_cast<int>(text.Length()) : -1;
}
