// The reader of modules' descriptions beside one that is written for nothing but to be obviously right. The input is a
// whole file, or, if it begins with the first byte of a description, the section alone.
#include "module/description.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using qor::glue::module_row;
using bytes = std::vector<unsigned char>;

class input_file final : public qor::module::file_bytes {
public:
    input_file(const unsigned char* data, std::size_t size) : m_data(data), m_size(size) {}
    bool read(uint64 offset, void* to, std::size_t size) override {
        if (offset > m_size || size > m_size - offset)
            return false;
        if (size != 0)
            std::memcpy(to, m_data + offset, size);
        return true;
    }

private:
    const unsigned char* m_data;
    std::size_t m_size;
};

// Little-endian numbers, byte by byte; nothing if the file ends before.
std::optional<uint64> number(const bytes& file, uint64 at, unsigned size) {
    uint64 value = 0;
    for (unsigned i = size; i-- != 0;) {
        if (at >= file.size() || at + i >= file.size())
            return std::nullopt;
        value = value << 8 | file[static_cast<std::size_t>(at + i)];
    }
    return value;
}

std::optional<bytes> part(const bytes& file, uint64 at, uint64 size) {
    if (at > file.size() || size > file.size() - at)
        return std::nullopt;
    return bytes(file.begin() + static_cast<std::ptrdiff_t>(at), file.begin() + static_cast<std::ptrdiff_t>(at + size));
}

struct found {
    qor::module::find_result result = qor::module::find_result::no_library;
    bytes section;
};

found from_section(const std::optional<bytes>& section) {
    if (!section || section->size() > 1 << 20)
        return {};
    return {qor::module::find_result::found, *section};
}

found find_in_elf(const bytes& file) {
    const auto kind = number(file, 4, 1);
    if (!number(file, 0, 8) || !number(file, 8, 8) || (*kind != 1 && *kind != 2) || number(file, 5, 1) != 1)
        return {};
    const bool wide = *kind == 2;
    const unsigned word = wide ? 8 : 4;
    const uint64 entry = wide ? 64 : 40;
    const auto table = number(file, wide ? 40 : 32, word);
    const auto entry_size = number(file, wide ? 58 : 46, 2);
    const auto count = number(file, wide ? 60 : 48, 2);
    const auto names_index = number(file, wide ? 62 : 50, 2);
    if (!names_index || entry_size != entry || *count > 0xff00 || *names_index >= *count ||
        !part(file, *table, *count * entry))
        return {};
    const auto field = [&](uint64 index, unsigned at, unsigned size) {
        return *number(file, *table + index * entry + at, size);
    };
    const auto offset = [&](uint64 index) { return field(index, wide ? 24 : 16, word); };
    const auto size = [&](uint64 index) { return field(index, wide ? 32 : 20, word); };
    const auto names = part(file, offset(*names_index), size(*names_index));
    if (field(*names_index, 4, 4) != 3 || !names || names->size() > 4 << 20)
        return {};
    for (uint64 i = 0; i < *count; ++i) {
        std::string name;
        if (field(i, 0, 4) >= names->size())
            continue;
        for (uint64 at = field(i, 0, 4); at < names->size() && (*names)[at] != 0; ++at)
            name += static_cast<char>((*names)[at]);
        if (name == "qor_mod" && field(i, 4, 4) != 8)
            return from_section(part(file, offset(i), size(i)));
    }
    return {qor::module::find_result::no_description, {}};
}

found find_in_pe(const bytes& file) {
    const auto start = number(file, 60, 4);
    if (!start || !part(file, *start, 24) || number(file, *start, 4) != 0x4550)
        return {};
    const uint64 count = *number(file, *start + 6, 2);
    const uint64 table = *start + 24 + *number(file, *start + 20, 2);
    if (!part(file, table, count * 40))
        return {};
    for (uint64 at = table; at != table + count * 40; at += 40) {
        const uint64 size = *number(file, at + 16, 4);
        const uint64 offset = *number(file, at + 20, 4);
        if (size != 0 && !part(file, offset, size))
            return {};
        if (std::memcmp(&file[static_cast<std::size_t>(at)], "qor_mod", 8) == 0)
            return from_section(part(file, offset, std::min(*number(file, at + 8, 4), size)));
    }
    return {qor::module::find_result::no_description, {}};
}

found find(const bytes& file) {
    if (file.size() < 4)
        return {};
    if (std::memcmp(file.data(), "\177ELF", 4) == 0)
        return find_in_elf(file);
    return std::memcmp(file.data(), "MZ", 2) == 0 ? find_in_pe(file) : found();
}

bool is_dotted(const std::string& text, std::size_t least, std::size_t longest, bool digits_only) {
    std::size_t parts = 0;
    std::string part;
    for (const char c : text + ".") {
        const bool is_digit = c >= '0' && c <= '9';
        if (c != '.') {
            if (!is_digit && (digits_only ||
                              (std::strchr("_-", c) == nullptr && !(c >= 'a' && c <= 'z') && !(c >= 'A' && c <= 'Z'))))
                return false;
            part += c;
        } else if (part.empty()) {
            return false;
        } else {
            part.clear();
            ++parts;
        }
    }
    return parts >= least && text.size() <= longest;
}

struct parsed {
    uint64 size, table_length;
    std::vector<module_row> rows;
    std::vector<std::string> texts;
};

std::optional<parsed> parse(const bytes& section) {
    if (section.size() < 24 || std::memcmp(section.data(), "qor mod\n", 8) != 0 || number(section, 8, 4) != 1)
        return std::nullopt;
    parsed out{*number(section, 12, 4), *number(section, 16, 4), {}, {}};
    const uint64 rows = *number(section, 20, 4);
    if (out.size > section.size() || out.size < 24 + 8 * rows)
        return std::nullopt;
    for (uint64 i = 0; i < rows; ++i) {
        const module_row row{static_cast<uint32>(*number(section, 24 + 8 * i, 4)),
                             static_cast<uint32>(*number(section, 28 + 8 * i, 4))};
        if (row.number >= out.table_length || (i != 0 && row.number <= out.rows.back().number))
            return std::nullopt;
        out.rows.push_back(row);
    }
    std::string text;
    bool is_open = false;
    for (uint64 at = 24 + 8 * rows; at < out.size; ++at) {
        is_open = section[static_cast<std::size_t>(at)] != 0;
        if (is_open)
            text += static_cast<char>(section[static_cast<std::size_t>(at)]);
        else
            out.texts.push_back(std::exchange(text, {}));
    }
    if (is_open || out.texts.size() < 3 || !is_dotted(out.texts[0], 1, 100, false) ||
        !is_dotted(out.texts[1], 1, 50, true) || !is_dotted(out.texts[2], 1, 50, true))
        return std::nullopt;
    for (std::size_t i = 3; i < out.texts.size(); ++i)
        if (!is_dotted(out.texts[i], 2, 255, false))
            return std::nullopt;
    if (std::set<std::string>(out.texts.begin() + 3, out.texts.end()).size() != out.texts.size() - 3)
        return std::nullopt;
    return out;
}

void check(bool holds) {
    if (!holds)
        std::abort();
}

void compare(const bytes& section) {
    qor::module::description seen;
    // Not from a string, behind whose terminator a step too far would go unseen.
    const std::string_view view(reinterpret_cast<const char*>(section.data()), section.size());
    const bool is_parsed = qor::module::parse_description(view, seen);
    const std::optional<parsed> expected = parse(section);
    check(is_parsed == expected.has_value());
    if (!is_parsed)
        return;
    check(seen.bytes.size() == expected->size && seen.table_length == expected->table_length);
    check(seen.rows.size() == expected->rows.size());
    for (std::size_t i = 0; i < seen.rows.size(); ++i)
        check(seen.rows[i].number == expected->rows[i].number && seen.rows[i].form == expected->rows[i].form);
    std::vector<std::string> texts = {seen.name, seen.version, seen.framework};
    texts.insert(texts.end(), seen.components.begin(), seen.components.end());
    check(texts == expected->texts);
    (void)qor::module::objection(seen);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const bytes file(data, data + size);
    if (size != 0 && data[0] == 'q') {
        compare(file);
        return 0;
    }
    input_file input(data, size);
    std::string section;
    const qor::module::find_result result = qor::module::find_description(input, section);
    const found expected = find(file);
    check(result == expected.result);
    if (result == qor::module::find_result::found) {
        check(section == std::string(expected.section.begin(), expected.section.end()));
        compare(expected.section);
    }
    return 0;
}
