// Strings: numbers and printf.
#include "string/format_fixed.h"
#include "string/string_data.h"

#include <charconv>

using qor::string::assign;

namespace {

template <class NUMBER>
void format_number(qorString& self, NUMBER value, int base) noexcept {
    char digits[64]; // 64 binary digits, or a sign and 19 decimal digits
    const std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, value, base);
    assign(self, {digits, static_cast<std::size_t>(end.ptr - digits)});
}

} // namespace

void qor::glue::qorString_FormatInteger(qorString* self, int64 value) noexcept { format_number(*self, value, 10); }

void qor::glue::qorString_FormatUnsigned(qorString* self, uint64 value, uint32 base) noexcept {
    if (base < 2 || base > 36)
        assign(*self, "");
    else
        format_number(*self, value, static_cast<int>(base));
}

void qor::glue::qorString_PrintV(qorString* self, const char* format, std::va_list arguments) noexcept {
    // Formatted separately, because the arguments may lie in this string.
    qor::string::working_memory memory;
    std::string_view text;
    qor::string::format_fixed(memory, text, format, arguments);
    assign(*self, text);
}
