// Times as text.
#include "error/error.h"
#include "time/calendar.h"

#include <cstdlib>
#include <string>

namespace {

void append(std::string& text, uint64 number, std::size_t digits) {
    const std::string plain = std::to_string(number);
    text.append(digits > plain.size() ? digits - plain.size() : 0, '0') += plain;
}

void append_offset(std::string& text, int32 offset) {
    const uint64 seconds = static_cast<uint64>(std::abs(int64{offset}));
    text += offset < 0 ? '-' : '+';
    append(text, seconds / 3600, 2);
    append(text, seconds / 60 % 60, 2);
    if (seconds % 60 != 0)
        append(text, seconds % 60, 2);
}

// Returns null, or the first unknown code. An unknown code is copied unchanged.
const char* append_all(std::string& text, const char* format, const qorTimeInfo& info);

// Returns false if the code is unknown.
bool append_part(std::string& text, char code, const qorTimeInfo& info) {
    const bool is_date = qor::time::day_number(info) >= 0;
    switch (code) {
    case 'Y':
        append(text, info.year, 4);
        return true;
    case 'y':
        append(text, info.year % 100, 2);
        return true;
    case 'm':
        append(text, info.month, 2);
        return true;
    case 'd':
        append(text, info.day, 2);
        return true;
    case 'j':
        append(text, is_date ? static_cast<uint64>(qor::time::days_before(info) + 1) : 0, 3);
        return true;
    case 'H':
        append(text, info.hour, 2);
        return true;
    case 'M':
        append(text, info.minute, 2);
        return true;
    case 'S':
        append(text, info.second, 2);
        return true;
    case 'f':
        append(text, info.ticks, 7);
        return true;
    case 'u':
        append(text, static_cast<uint64>(qorGetDayOfWeek(info)) + 1, 1);
        return true;
    case 'z':
        append_offset(text, info.utc_offset);
        return true;
    case '%':
        text += '%';
        return true;
    case 'F':
        return append_all(text, "%Y-%m-%d", info) == nullptr;
    case 'T':
        return append_all(text, "%H:%M:%S", info) == nullptr;
    default:
        return false;
    }
}

const char* append_all(std::string& text, const char* format, const qorTimeInfo& info) {
    const char* unknown = nullptr;
    for (const char* at = format; *at != '\0'; ++at) {
        if (*at == '%' && append_part(text, at[1], info)) {
            ++at;
            continue;
        }
        if (*at == '%' && unknown == nullptr)
            unknown = at;
        text += *at;
    }
    return unknown;
}

} // namespace

bool qor::glue::qorFormatTime_info(qorString& out, const char* format, const qorTimeInfo& info) noexcept {
    std::string text;
    const char* const unknown = append_all(text, format, info);
    if (unknown != nullptr)
        qor::error::set(qorError_bad_time_format, {format, std::to_string(unknown - format).c_str()});
    out = text.c_str(); // assigned last, because the format may lie in `out`
    return unknown == nullptr;
}

bool qor::glue::qorFormatTime_clock(qorString& out, const char* format, uint64 clock, bool local) noexcept {
    qorTimeInfo info;
    glue::qorConvertTime(clock, local, info);
    return qorFormatTime_info(out, format, info);
}
