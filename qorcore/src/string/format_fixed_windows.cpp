// printf whose result no locale changes, Windows.
#include "string/format_fixed.h"

#include <clocale>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

bool is_c_locale() noexcept { return std::strcmp(std::setlocale(LC_ALL, nullptr), "C") == 0; }

// The C library here has no locale objects, but a thread may have a locale of its own for a while.
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
    // Few programs ever leave the C locale, and asking costs far less than changing it.
    if (is_c_locale())
        return std::vsnprintf(out, size, format, arguments);
    const c_locale_of_thread hold;
    return std::vsnprintf(out, size, format, arguments);
}
