#include "error/error.h"
#include "platform/wide_windows.h"

#include <cerrno>
#include <windows.h>

std::string qor::error::system_reason(int code) {
    wchar_t text[512];
    DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                  static_cast<DWORD>(code), 0, text, sizeof text / sizeof *text, nullptr);
    if (length == 0)
        return "error " + std::to_string(code);
    // The system's texts end with a full stop and a line end. Here they become part of a sentence.
    while (length != 0 && (text[length - 1] <= L' ' || text[length - 1] == L'.'))
        --length;
    return platform::from_wide({text, length});
}

qor::error::keep_failures::keep_failures() noexcept : m_of_c_library(errno), m_of_system(GetLastError()) {}

qor::error::keep_failures::~keep_failures() {
    errno = m_of_c_library;
    SetLastError(m_of_system);
}
