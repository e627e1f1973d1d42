// Inside the library: printf whose result no locale changes.
#pragma once

#include "string/working_memory.h"

#include <cstdarg>
#include <string_view>

namespace qor::string {

// Formats as the C library does in the C locale, whatever locale is set. `out` lies in `memory`, is
// terminated, and may hold NULs. `arguments` is used up. False: the C library refuses the format or an
// argument of it; `out` is empty.
bool format_fixed(working_memory& memory, std::string_view& out, const char* format, std::va_list arguments) noexcept;

// std::vsnprintf in the C locale, for this thread alone.
int vsnprintf_in_c_locale(char* out, std::size_t size, const char* format, std::va_list arguments) noexcept;

} // namespace qor::string
