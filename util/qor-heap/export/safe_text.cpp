#include "safe_text.h"

#include "qor/system/Types.h"

namespace qor::heap_tool {

namespace {

constexpr std::string_view replacement = "\xef\xbf\xbd";
constexpr std::string_view ellipsis = "\xe2\x80\xa6";

bool is_continuation(char byte) { return (static_cast<unsigned char>(byte) & 0xc0) == 0x80; }

// The character at the beginning of the text and its length in bytes; length 0: none begins here.
struct character {
    uint32 code = 0;
    std::size_t length = 0;
};

character first_character(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text.front());
    if (lead < 0x80)
        return {lead, 1};
    const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || text.size() < length)
        return {};
    uint32 code = lead & (0x7fU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if (!is_continuation(text[i]))
            return {};
        code = code << 6 | (static_cast<unsigned char>(text[i]) & 0x3f);
    }
    constexpr uint32 least[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < least[length] || code > 0x10ffff || (code >= 0xd800 && code < 0xe000))
        return {};
    return {code, length};
}

bool is_harmful(uint32 code) {
    return code < 0x20 || (code >= 0x7f && code < 0xa0) // controls
           || code == 0x61c || code == 0x200e || code == 0x200f || (code >= 0x202a && code <= 0x202e) ||
           (code >= 0x2066 && code <= 0x2069)   // direction
           || code == 0x2028 || code == 0x2029; // line ends
}

} // namespace

std::string safe_text(std::string_view text) {
    std::string safe;
    safe.reserve(text.size());
    while (!text.empty()) {
        const character next = first_character(text);
        const std::size_t length = next.length == 0 ? 1 : next.length;
        safe += next.length == 0 || is_harmful(next.code) ? replacement : text.substr(0, length);
        text.remove_prefix(length);
    }
    return safe;
}

std::string shortened(std::string_view text, std::size_t size) {
    if (text.size() <= size)
        return std::string(text);
    std::size_t end = size > ellipsis.size() ? size - ellipsis.size() : 0;
    while (end > 0 && is_continuation(text[end]))
        --end;
    return std::string(text.substr(0, end)) + std::string(ellipsis);
}

std::string_view file_name(std::string_view path) {
    const std::size_t end = path.find_last_of("/\\");
    return end == std::string_view::npos ? path : path.substr(end + 1);
}

} // namespace qor::heap_tool
