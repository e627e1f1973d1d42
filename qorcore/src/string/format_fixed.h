// Inside the library: printf whose result does not depend on the locale.
#pragma once

#include "string/working_memory.h"

#include <cstdarg>
#include <string_view>

namespace qor::string {

// Formats as the C library does in the C locale, whatever locale is set. `out` lies in `memory`, is terminated and may
// contain NULs. Consumes `arguments`. Returns false and an empty `out` if the C library rejects the format or an
// argument.
bool format_fixed(working_memory& memory, std::string_view& out, const char* format, std::va_list arguments) noexcept;

// std::vsnprintf in the C locale; does not affect other threads.
int vsnprintf_in_c_locale(char* out, std::size_t size, const char* format, std::va_list arguments) noexcept;

} // namespace qor::string
