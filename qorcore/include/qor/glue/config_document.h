// Between libqor and its module for configuration: the tree of one text in TOML, and the parts of a path. Clients do
// not need them.
#pragma once

#include "qor/system/Config.h"

#include <charconv>
#include <string>
#include <string_view>
#include <vector>

// The tree of one text. Changes of the tree are changes of the text.
class IQORConfigDocument : public IQORConfigNode {
public:
    // Parses a text; `name` is that of its file, for errors and origins. Returns false and keeps the earlier text on
    // failure.
    [[nodiscard]] virtual bool Parse(const char* name, const char* text, uint64 size) noexcept = 0;

    // The text, valid until the next change.
    virtual std::string_view GetText() noexcept = 0;

protected:
    ~IQORConfigDocument() = default;
};

namespace qor::config {

// The largest file, and the most tables and arrays in one another.
inline constexpr std::size_t max_size = std::size_t{16} << 20;
inline constexpr std::size_t max_depth = 100;

// A part of a path: the name of an entry, or the index of an element.
struct part {
    static constexpr uint32 new_element = 0xffffffff;

    bool is_index = false;
    uint32 index = 0;
    std::string name;
    std::size_t end = 0; // where the part ends in the text of the path
};

// Reads the digits behind "\u" or "\U", and adds the character to `out`. Returns false if there is no such character.
inline bool add_escaped(std::string_view digits, std::string& out) {
    uint32 code = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), code, 16);
    if (error != std::errc() || end != digits.data() + digits.size() || code > 0x10ffff ||
        (code >= 0xd800 && code < 0xe000))
        return false;
    const auto add = [&out](uint32 byte) { out += static_cast<char>(byte); };
    if (code < 0x80) {
        add(code);
    } else if (code < 0x800) {
        add(0xc0 | code >> 6);
        add(0x80 | (code & 0x3f));
    } else if (code < 0x10000) {
        add(0xe0 | code >> 12);
        add(0x80 | (code >> 6 & 0x3f));
        add(0x80 | (code & 0x3f));
    } else {
        add(0xf0 | code >> 18);
        add(0x80 | (code >> 12 & 0x3f));
        add(0x80 | (code >> 6 & 0x3f));
        add(0x80 | (code & 0x3f));
    }
    return true;
}

// Whether a byte may stand in a name without quotes.
constexpr bool is_bare(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
}

// Reads a name from `at` on, bare or in quotes, and moves `at` behind it. Returns false if no name stands there.
inline bool read_name(std::string_view text, std::size_t& at, std::string& name) {
    name.clear();
    const char quote = at < text.size() ? text[at] : '\0';
    if (quote != '"' && quote != '\'') {
        while (at < text.size() && is_bare(text[at]))
            name += text[at++];
        return !name.empty();
    }
    for (++at; at < text.size(); ++at) {
        if (text[at] == quote) {
            ++at;
            return true;
        }
        if (text[at] == '\n')
            return false;
        if (text[at] != '\\' || quote == '\'') {
            name += text[at];
            continue;
        }
        if (++at == text.size())
            return false;
        constexpr std::string_view letters = "btnfr\"\\", meanings = "\b\t\n\f\r\"\\";
        if (const std::size_t known = letters.find(text[at]); known != letters.npos) {
            name += meanings[known];
            continue;
        }
        const std::size_t length = text[at] == 'u' ? 4 : text[at] == 'U' ? 8 : 0;
        if (length == 0 || text.size() - at - 1 < length || !add_escaped(text.substr(at + 1, length), name))
            return false;
        at += length;
    }
    return false;
}

// Divides a path. Returns false if this is not a path.
inline bool read_path(std::string_view path, std::vector<part>& parts) {
    parts.clear();
    std::size_t at = 0;
    while (at < path.size()) {
        part next;
        if (path[at] == '[') {
            const char* const begin = path.data() + at + 1;
            const char* const end = path.data() + path.size();
            const auto [digits_end, error] = std::from_chars(begin, end, next.index);
            next.is_index = true;
            if (digits_end == begin)
                next.index = part::new_element;
            else if (error != std::errc() || next.index == part::new_element)
                return false;
            if (digits_end == end || *digits_end != ']')
                return false;
            at = static_cast<std::size_t>(digits_end - path.data()) + 1;
        } else {
            if (!parts.empty() && path[at++] != '.')
                return false;
            if (!read_name(path, at, next.name))
                return false;
        }
        next.end = at;
        parts.push_back(std::move(next));
        if (parts.size() > max_depth)
            return false;
    }
    return true;
}

} // namespace qor::config
