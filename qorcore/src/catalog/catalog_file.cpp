#include "catalog/catalog_file.h"

#include "catalog/inserts.h"
#include "platform/whole_file.h"
#include "string/unicode.h"

#include <charconv>
#include <optional>

namespace {

// A catalog has a few kilobytes. A larger file is something else; reading it would only delay the process.
constexpr std::size_t max_size = 1 << 20;

// The set of inserts in a text, one bit for each.
unsigned inserts_of(std::string_view text) noexcept {
    unsigned found = 0;
    for (; !text.empty(); text.remove_prefix(1))
        if (const auto place = qor::catalog::leading_insert(text); place.length != 0)
            found |= 1u << place.number;
    return found;
}

bool is_utf8(std::string_view text) noexcept {
    while (!text.empty()) {
        const auto first = qor::string::decode(text);
        if (!first.valid)
            return false;
        text.remove_prefix(first.size);
    }
    return true;
}

// Resolves the escapes in a line. A raw control character is an error, because it must be written as an escape.
std::optional<std::string> unescape(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7f')
            return std::nullopt;
        if (c == '\\') {
            if (++i == text.size())
                return std::nullopt;
            switch (text[i]) {
            case 'n':
                c = '\n';
                break;
            case 't':
                c = '\t';
                break;
            case '\\':
                break;
            default:
                return std::nullopt;
            }
        }
        result += c;
    }
    return result;
}

// Removes the first line from `rest` and returns it without its line end.
std::string_view take_line(std::string_view& rest) noexcept {
    const std::size_t end = rest.find('\n');
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    if (line.ends_with('\r'))
        line.remove_suffix(1);
    return line;
}

// Removes the number at the beginning of a line and the blank behind it, and returns the number.
std::optional<uint32> take_number(std::string_view& line) noexcept {
    uint32 number = 0;
    const char* const end = line.data() + line.size();
    const auto [behind, error] = std::from_chars(line.data(), end, number);
    if (error != std::errc() || behind == end || *behind != ' ')
        return std::nullopt;
    line.remove_prefix(static_cast<std::size_t>(behind - line.data()) + 1);
    return number;
}

} // namespace

qor::catalog::translation qor::catalog::parse_catalog(std::string_view content, std::span<const message> english) {
    translation texts;
    while (!content.empty()) {
        std::string_view line = take_line(content);
        const std::optional<uint32> number = take_number(line);
        if (!number)
            continue;
        const message* const original = find_message(english, *number);
        if (original == nullptr)
            continue;
        std::optional<std::string> text = unescape(line);
        if (!text || text->empty() || !is_utf8(*text) || inserts_of(*text) != inserts_of(original->text))
            continue;
        texts.resize(english.size());
        std::string& place = texts[static_cast<std::size_t>(original - english.data())];
        // If a number occurs twice, the first text counts.
        if (place.empty())
            place = std::move(*text);
    }
    return texts;
}

qor::catalog::translation qor::catalog::load_catalog(const std::string& path, std::span<const message> english) {
    std::string content;
    return platform::read_whole(path.c_str(), max_size, content) ? parse_catalog(content, english) : translation();
}
