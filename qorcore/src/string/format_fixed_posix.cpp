// printf whose result does not depend on the locale, POSIX.
#include "string/format_fixed.h"

#include <cstdio>
#include <locale.h>

int qor::string::vsnprintf_in_c_locale(char* out, std::size_t size, const char* format,
                                       std::va_list arguments) noexcept {
    // Never freed: threads may format until the process ends.
    static const locale_t c_locale = newlocale(LC_ALL_MASK, "C", nullptr);
    const locale_t previous = uselocale(c_locale);
    const int length = std::vsnprintf(out, size, format, arguments);
    uselocale(previous);
    return length;
}
