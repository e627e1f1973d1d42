#include "edit.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace {

std::string quoted(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        constexpr std::string_view specials = "\b\t\n\f\r\"\\", letters = "btnfr\"\\";
        const auto byte = static_cast<unsigned char>(c);
        if (const std::size_t special = specials.find(c); special != specials.npos) {
            out += '\\';
            out += letters[special];
        } else if (byte < 0x20 || byte == 0x7f) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04X", byte);
            out += escape;
        } else {
            out += c;
        }
    }
    return out + '"';
}

// The shortest text that is the same number again; it has a point or an exponent.
std::string number(double value) {
    if (std::isnan(value))
        return "nan";
    if (std::isinf(value))
        return value < 0 ? "-inf" : "inf";
    char digits[40];
    std::string out(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
    return out.find_first_of(".e") == out.npos ? out + ".0" : out;
}

std::string time(const qorConfigTime& value) {
    std::string out;
    const auto add = [&out](const char* format, auto... values) {
        char piece[32];
        std::snprintf(piece, sizeof piece, format, unsigned{values}...);
        out += piece;
    };
    if (value.has_date)
        add("%04u-%02u-%02u", value.year, value.month, value.day);
    if (value.has_date && value.has_time)
        out += 'T';
    if (value.has_time)
        add("%02u:%02u:%02u", value.hour, value.minute, value.second);
    if (value.has_time && value.nanosecond != 0) {
        add(".%09u", value.nanosecond);
        out.erase(out.find_last_not_of('0') + 1);
    }
    if (value.has_offset && value.offset == 0)
        out += 'Z';
    else if (value.has_offset) {
        const unsigned minutes = static_cast<unsigned>(std::abs(value.offset));
        out += value.offset < 0 ? '-' : '+';
        add("%02u:%02u", minutes / 60, minutes % 60);
    }
    return out;
}

} // namespace

std::string config::literal_of(const qorConfigValue& value) {
    switch (value.kind) {
    case qorConfigKind::logical:
        return value.logical ? "true" : "false";
    case qorConfigKind::integer:
        return std::to_string(value.integer);
    case qorConfigKind::number:
        return number(value.number);
    case qorConfigKind::text:
        return quoted({value.text, value.length});
    case qorConfigKind::time:
        return time(value.time);
    default:
        return {};
    }
}
