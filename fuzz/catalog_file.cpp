// The reader of catalog files beside one that is written for nothing but to be obviously right.
#include "catalog/catalog_file.h"

#include <cstdlib>

namespace {

using qor::catalog::message;

constexpr message english[] = {{0, "zero"},
                               {1, "one"},
                               {2, "two"},
                               {7, "{1} of {2}"},
                               {10, "{10} {1}"},
                               {36, "The action '{1}' has no option '--{2}'."},
                               {1021, "{1}: {2}, in {3} ({4}:{5})"},
                               {4294967295, "{3}"}};

std::vector<std::string> split_lines(const std::string& content) {
    std::vector<std::string> lines(1);
    for (const char c : content) {
        if (c == '\n')
            lines.emplace_back();
        else
            lines.back() += c;
    }
    for (std::string& line : lines)
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
    return lines;
}

// What stands behind the number; false: the line is not one with this number.
bool text_of_line(const std::string& line, uint32 number, std::string& text) {
    std::size_t digits = 0;
    while (digits < line.size() && line[digits] >= '0' && line[digits] <= '9')
        ++digits;
    std::size_t zeros = 0;
    while (zeros + 1 < digits && line[zeros] == '0')
        ++zeros;
    if (digits == 0 || line.substr(zeros, digits - zeros) != std::to_string(number) || line[digits] != ' ')
        return false;
    text = line.substr(digits + 1);
    return !text.empty();
}

bool is_plain(const std::string& text) {
    for (const char c : text)
        if ((c >= 0 && c < 32) || c == 127)
            return false;
    return true;
}

// The UTF-8 of a character, straight from the table in the Unicode standard.
std::string utf8(uint32 c) {
    const auto tail = [c](int shift) { return static_cast<char>(0x80 | ((c >> shift) & 0x3f)); };
    if (c < 0x80)
        return {static_cast<char>(c)};
    if (c < 0x800)
        return {static_cast<char>(0xc0 | (c >> 6)), tail(0)};
    if (c < 0x10000)
        return {static_cast<char>(0xe0 | (c >> 12)), tail(6), tail(0)};
    return {static_cast<char>(0xf0 | (c >> 18)), tail(12), tail(6), tail(0)};
}

// Reads a character of each possible length and looks whether writing it gives the same bytes again.
bool is_utf8(const std::string& text) {
    for (std::size_t at = 0; at < text.size();) {
        std::size_t length = 1;
        for (; length <= 4; ++length) {
            const std::string bytes = text.substr(at, length);
            uint32 c = static_cast<unsigned char>(bytes[0]) & (length == 1 ? 0xff : 0x7f >> length);
            for (std::size_t i = 1; i < bytes.size(); ++i)
                c = (c << 6) | (static_cast<unsigned char>(bytes[i]) & 0x3f);
            if (c <= 0x10ffff && (c < 0xd800 || c > 0xdfff) && utf8(c) == bytes)
                break;
        }
        if (length > 4)
            return false;
        at += length;
    }
    return true;
}

bool unescape(const std::string& text, std::string& out) {
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\\') {
            out += text[at];
            continue;
        }
        const std::string escape = text.substr(at++, 2);
        if (escape == "\\n")
            out += "\n";
        else if (escape == "\\t")
            out += "\t";
        else if (escape == "\\\\")
            out += "\\";
        else
            return false;
    }
    return true;
}

bool same_inserts(const std::string& left, const std::string& right) {
    for (int number = 1; number <= 10; ++number) {
        const std::string insert = std::string("{").append(std::to_string(number)).append("}");
        if ((left.find(insert) == std::string::npos) != (right.find(insert) == std::string::npos))
            return false;
    }
    return true;
}

std::string expected_text(const std::vector<std::string>& lines, const message& original) {
    for (const std::string& line : lines) {
        std::string raw;
        std::string text;
        if (text_of_line(line, original.number, raw) && is_plain(raw) && is_utf8(raw) && unescape(raw, text) &&
            same_inserts(text, std::string(original.text)))
            return text;
    }
    return {};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    // Not copied into a string first: behind its terminator a step too far would go unseen.
    const std::string_view content(reinterpret_cast<const char*>(data), size);
    const qor::catalog::translation texts = qor::catalog::parse_catalog(content, english);

    const std::vector<std::string> lines = split_lines(std::string(content));
    bool any = false;
    for (std::size_t i = 0; i < std::size(english); ++i) {
        const std::string expected = expected_text(lines, english[i]);
        any |= !expected.empty();
        if (expected != (texts.empty() ? std::string() : texts[i]))
            std::abort();
    }
    if (any == texts.empty())
        std::abort();
    return 0;
}
