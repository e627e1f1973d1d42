// printf whose result does not depend on the locale, Windows.
#include "string/format_fixed.h"

#include <clocale>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

bool is_c_locale() noexcept { return std::strcmp(std::setlocale(LC_ALL, nullptr), "C") == 0; }

// The C library of Windows has no locale objects, but it lets a thread have a locale of its own temporarily.
class c_locale_of_thread {
public:
    c_locale_of_thread() : m_mode(_configthreadlocale(_ENABLE_PER_THREAD_LOCALE)) {
        m_previous = std::setlocale(LC_ALL, nullptr);
        std::setlocale(LC_ALL, "C");
    }
    c_locale_of_thread(const c_locale_of_thread&) = delete;
    c_locale_of_thread& operator=(const c_locale_of_thread&) = delete;
    ~c_locale_of_thread() {
        std::setlocale(LC_ALL, m_previous.c_str());
        _configthreadlocale(m_mode);
    }

private:
    int m_mode;
    std::string m_previous;
};

} // namespace

int qor::string::vsnprintf_in_c_locale(char* out, std::size_t size, const char* format,
                                       std::va_list arguments) noexcept {
    // Few programs ever leave the C locale, and the query costs far less than the change.
    if (is_c_locale())
        return std::vsnprintf(out, size, format, arguments);
    const c_locale_of_thread hold;
    return std::vsnprintf(out, size, format, arguments);
}
