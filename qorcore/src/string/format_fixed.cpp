// printf whose result no locale changes.
#include "string/format_fixed.h"

#include <cerrno>

bool qor::string::format_fixed(working_memory& memory, std::string_view& out, const char* format,
                               std::va_list arguments) noexcept {
    out = "";
    // %m prints errno, so a second pass has to find it as the first one did.
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
