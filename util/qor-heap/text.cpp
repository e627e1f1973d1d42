#include "text.h"

#include "message_names.h"
#include "qor/qor.h"

#include <algorithm>
#include <charconv>

namespace qor::heap_tool {

namespace message = qor::messages::heap;

std::string text_of(uint32 number, std::initializer_list<std::string> inserts) {
    const char* all[5] = {};
    std::transform(inserts.begin(), inserts.end(), all, [](const std::string& each) { return each.c_str(); });
    qorString text;
    text.Format(message::catalog, number, all[0], all[1], all[2], all[3], all[4]);
    return {text.Text(), text.Length()};
}

void say(uint32 number, std::initializer_list<std::string> inserts) {
    const std::string line = "qor-heap: " + text_of(number, inserts) + '\n';
    fputtext(stderr, line.data(), line.size());
    std::fflush(stderr);
}

std::string fixed(double number, int digits) {
    char text[400];
    const auto end = std::to_chars(text, text + sizeof text, number, std::chars_format::fixed, digits).ptr;
    return {text, end};
}

std::string percent(uint64 part, uint64 whole) {
    return whole == 0 ? "-" : fixed(100.0 * static_cast<double>(part) / static_cast<double>(whole), 1) + '%';
}

std::string readable_bytes(uint64 bytes) {
    constexpr const char* units[] = {" B", " KiB", " MiB", " GiB", " TiB", " PiB", " EiB"};
    auto number = static_cast<double>(bytes);
    std::size_t unit = 0;
    for (; number >= 1024 && unit + 1 < std::size(units); ++unit)
        number /= 1024;
    return fixed(number, unit == 0 ? 0 : 1) + units[unit];
}

std::string seconds(uint64 nanoseconds) { return fixed(static_cast<double>(nanoseconds) / 1e9, 3) + " s"; }

std::size_t width_of(std::string_view text) noexcept {
    return static_cast<std::size_t>(std::ranges::count_if(text, [](char c) { return (c & 0xc0) != 0x80; }));
}

std::string padded(std::string_view text, std::size_t width) {
    return std::string(width - std::min(width, width_of(text)), ' ').append(text);
}

} // namespace qor::heap_tool
