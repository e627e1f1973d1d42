// printf whose result does not depend on the locale.
#include "string/format_fixed.h"

#include <cerrno>

bool qor::string::format_fixed(working_memory& memory, std::string_view& out, const char* format,
                               std::va_list arguments) noexcept {
    out = "";
    // %m prints errno, so the second pass must have the same errno as the first.
    const int error = errno;
    char* text = memory.get(working_memory::small_size);
    std::va_list again;
    va_copy(again, arguments);
    int length = vsnprintf_in_c_locale(text, working_memory::small_size, format, arguments);
    if (length >= static_cast<int>(working_memory::small_size)) {
        text = memory.get(static_cast<std::size_t>(length) + 1);
        errno = error;
        length = vsnprintf_in_c_locale(text, static_cast<std::size_t>(length) + 1, format, again);
    }
    va_end(again);
    if (length < 0)
        return false;
    out = {text, static_cast<std::size_t>(length)};
    return true;
}
