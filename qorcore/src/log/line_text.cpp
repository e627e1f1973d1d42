#include "log/line_text.h"

#include "string/unicode.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

constexpr std::string_view names[] = {"emergency", "alert", "critical", "error", "warning", "notice", "info", "debug"};

bool is_shown(const qor::string::decoded& next) noexcept {
    const uint32 c = next.character;
    return next.valid && c >= 0x20 && !(c >= 0x7f && c <= 0x9f) && !(c >= 0x202a && c <= 0x202e) &&
           !(c >= 0x2066 && c <= 0x2069) && c != 0x2028 && c != 0x2029;
}

// Tests eight bytes at a time: one of the three terms sets the high bit of a byte that is beyond ASCII, below `least`,
// or DEL. A carry can only mark the neighbour of such a byte as well.
template <char least>
bool is_plain(std::string_view text) noexcept {
    constexpr uint64 each = 0x0101010101010101;
    uint64 found = 0;
    for (; text.size() >= sizeof each; text.remove_prefix(sizeof each)) {
        uint64 bytes;
        std::memcpy(&bytes, text.data(), sizeof bytes);
        found |= bytes | (bytes - least * each) | (bytes + each);
    }
    bool is_right = (found & 0x80 * each) == 0;
    for (const char c : text)
        is_right &= c >= least && c <= '~';
    return is_right;
}

void append_escape(std::string& line, char byte) {
    constexpr char digits[] = "0123456789abcdef";
    switch (byte) {
    case '\n':
        line.append("\\n");
        return;
    case '\r':
        line.append("\\r");
        return;
    case '\t':
        line.append("\\t");
        return;
    default:
        line.append("\\x");
        line.push_back(digits[byte >> 4 & 15]);
        line.push_back(digits[byte & 15]);
    }
}

} // namespace

std::string_view qor::log::level_name(qorLogLevel level) noexcept {
    return names[std::min<std::size_t>(static_cast<std::size_t>(level), std::size(names) - 1)];
}

bool qor::log::is_line_text(std::string_view text) noexcept { return is_plain<' '>(text); }
bool qor::log::is_line_word(std::string_view text) noexcept { return is_plain<'!'>(text); }

void qor::log::append_line_text(std::string& line, std::string_view text, std::string_view special) {
    while (!text.empty()) {
        const string::decoded next = string::decode(text);
        const std::string_view piece = text.substr(0, next.size);
        if (is_shown(next) && (piece.size() != 1 || special.find(piece.front()) == special.npos))
            line.append(piece);
        else
            for (const char byte : piece)
                append_escape(line, byte);
        text.remove_prefix(next.size);
    }
}

void qor::log::append_fields(std::string& line, const std::vector<field>& fields) {
    for (const field& each : fields) {
        line.append(" ").append(each.name).append("=\"");
        std::string_view rest = each.value;
        while (!rest.empty()) {
            const std::size_t plain = std::min(rest.find_first_of("\"\\"), rest.size());
            append_line_text(line, rest.substr(0, plain));
            rest.remove_prefix(plain);
            if (rest.empty())
                break;
            line.push_back('\\');
            line.push_back(rest.front());
            rest.remove_prefix(1);
        }
        line.push_back('"');
    }
}

std::string_view qor::log::base_name(const char* path) noexcept {
    const std::string_view text = path != nullptr ? path : "";
    std::size_t begin = text.size();
    while (begin != 0 && text[begin - 1] != '/' && text[begin - 1] != '\\')
        --begin;
    return text.substr(begin);
}

std::string_view qor::log::cut_text(std::string_view text, std::size_t size) noexcept {
    if (text.size() <= size)
        return text;
    while (size != 0 && (text[size] & 0xc0) == 0x80)
        --size;
    return text.substr(0, size);
}
