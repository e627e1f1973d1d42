#include "module/description.h"

#include "catalog/catalog.h"
#include "message_names.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>

namespace framework = qor::messages::framework;

namespace qor::module {
namespace {

constexpr std::string_view section_name = QOR_MODULE_SECTION;
static_assert(section_name.size() < 8); // so that a NUL follows it on Windows, too

// Some hundred kilobytes would be ten times the largest table.
constexpr std::size_t largest_section = 1 << 20;
// The names of sections take some hundred bytes.
constexpr std::size_t largest_names = 4 << 20;

// A number of the file, which is in this machine's byte order.
template <class TYPE>
TYPE number(const char* at) noexcept {
    TYPE value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

bool read_section(file_bytes& file, uint64 offset, uint64 size, std::string& section) {
    if (size > largest_section)
        return false;
    section.assign(static_cast<std::size_t>(size), '\0');
    return file.read(offset, section.data(), section.size());
}

// ---- ELF

// Where the fields are in files of one word size. The words are addresses, offsets and sizes.
struct elf_form {
    std::size_t word;
    std::size_t header_size;
    std::size_t section_table; // in the header: the offset of the table
    std::size_t entry_size;    // in the header: of an entry of the table; the count and the index of the names follow
    std::size_t section_size;  // of an entry
    std::size_t offset;        // in an entry: of the section in the file; the size follows

    uint64 get(const char* at) const noexcept { return word == 8 ? number<uint64>(at) : number<uint32>(at); }
};

constexpr elf_form elf_32 = {4, 52, 32, 46, 40, 16};
constexpr elf_form elf_64 = {8, 64, 40, 58, 64, 24};

constexpr uint32 string_table = 3; // the type of a section that holds names
constexpr uint32 no_bits = 8;      // that of one that takes no room in the file
constexpr std::size_t most_sections = 0xff00;

find_result find_in_elf(file_bytes& file, std::string& section) {
    char ident[16];
    if (!file.read(0, ident, sizeof ident))
        return find_result::no_library;
    constexpr char own_order = std::endian::native == std::endian::little ? 1 : 2;
    if ((ident[4] != 1 && ident[4] != 2) || ident[5] != own_order)
        return find_result::no_library;
    const elf_form& form = ident[4] == 2 ? elf_64 : elf_32;

    char header[64];
    if (!file.read(0, header, form.header_size))
        return find_result::no_library;
    const uint64 table = form.get(header + form.section_table);
    const std::size_t count = number<uint16>(header + form.entry_size + 2);
    const std::size_t names_index = number<uint16>(header + form.entry_size + 4);
    if (count > most_sections || names_index >= count || number<uint16>(header + form.entry_size) != form.section_size)
        return find_result::no_library;

    std::string sections(count * form.section_size, '\0');
    if (!file.read(table, sections.data(), sections.size()))
        return find_result::no_library;
    const auto entry = [&](std::size_t index) { return sections.data() + index * form.section_size; };
    const auto offset_of = [&](std::size_t index) { return form.get(entry(index) + form.offset); };
    const auto size_of = [&](std::size_t index) { return form.get(entry(index) + form.offset + form.word); };
    const auto type_of = [&](std::size_t index) { return number<uint32>(entry(index) + 4); };

    const uint64 names_size = size_of(names_index);
    if (type_of(names_index) != string_table || names_size > largest_names)
        return find_result::no_library;
    // One byte more: a NUL behind the last name, whatever the file has there.
    std::string names(static_cast<std::size_t>(names_size) + 1, '\0');
    if (!file.read(offset_of(names_index), names.data(), names.size() - 1))
        return find_result::no_library;
    for (std::size_t i = 0; i < count; ++i) {
        const uint32 name = number<uint32>(entry(i));
        if (name < names_size && type_of(i) != no_bits && std::strcmp(names.data() + name, section_name.data()) == 0)
            return read_section(file, offset_of(i), size_of(i), section) ? find_result::found : find_result::no_library;
    }
    return find_result::no_description;
}

// ---- PE, as on Windows

find_result find_in_pe(file_bytes& file, std::string& section) {
    constexpr std::size_t section_size = 40;
    char start[4];
    if (!file.read(60, start, sizeof start))
        return find_result::no_library;
    const uint64 place = number<uint32>(start);
    char header[24];
    if (!file.read(place, header, sizeof header) || std::memcmp(header, "PE\0\0", 4) != 0)
        return find_result::no_library;
    const std::size_t count = number<uint16>(header + 6);
    const std::size_t optional_size = number<uint16>(header + 20);
    std::string sections(count * section_size, '\0');
    if (!file.read(place + sizeof header + optional_size, sections.data(), sections.size()))
        return find_result::no_library;
    for (const char* at = sections.data(); at != sections.data() + sections.size(); at += section_size) {
        const uint32 size_in_file = number<uint32>(at + 16);
        char last;
        if (size_in_file != 0 && !file.read(uint64{number<uint32>(at + 20)} + size_in_file - 1, &last, 1))
            return find_result::no_library;
        if (std::strncmp(at, section_name.data(), 8) != 0)
            continue;
        // What is in the file is rounded up; the rest of it is no part of the section.
        const uint32 size = std::min(number<uint32>(at + 8), size_in_file);
        return read_section(file, number<uint32>(at + 20), size, section) ? find_result::found
                                                                          : find_result::no_library;
    }
    return find_result::no_description;
}

// ---- the description itself

// Takes the next text, up to its NUL. Returns false if there is none.
bool take_text(std::string_view& rest, std::string& out) {
    const std::size_t end = rest.find('\0');
    if (end == std::string_view::npos)
        return false;
    out = rest.substr(0, end);
    rest.remove_prefix(end + 1);
    return true;
}

bool parse_texts(std::string_view texts, description& out) {
    if (!take_text(texts, out.name) || !glue::is_module_name(out.name) || !take_text(texts, out.version) ||
        !glue::is_version(out.version) || !take_text(texts, out.framework) || !glue::is_version(out.framework))
        return false;
    while (!texts.empty()) {
        std::string& component = out.components.emplace_back();
        if (!take_text(texts, component) || !glue::is_component_name(component))
            return false;
    }
    std::vector<std::string> sorted = out.components;
    std::ranges::sort(sorted);
    return std::ranges::adjacent_find(sorted) == sorted.end();
}

std::string text_of(uint32 message, const std::string& first, const std::string& second = {}) {
    const char* const inserts[10] = {first.c_str(), second.c_str()};
    return catalog::expand(catalog::find(framework::catalog, message), inserts);
}

std::string_view major(std::string_view version) noexcept { return version.substr(0, version.find('.')); }

} // namespace

find_result find_description(file_bytes& file, std::string& section) {
    char begin[4];
    if (!file.read(0, begin, sizeof begin))
        return find_result::no_library;
    if (std::memcmp(begin, "\177ELF", 4) == 0)
        return find_in_elf(file, section);
    return std::memcmp(begin, "MZ", 2) == 0 ? find_in_pe(file, section) : find_result::no_library;
}

bool parse_description(std::string_view section, description& out) {
    glue::module_description head;
    if (section.size() < sizeof head)
        return false;
    std::memcpy(&head, section.data(), sizeof head);
    const glue::module_description own;
    if (std::memcmp(head.magic, own.magic, sizeof head.magic) != 0 || head.layout != own.layout ||
        head.size < sizeof head || head.size > section.size() ||
        head.row_count > (head.size - sizeof head) / sizeof(glue::module_row))
        return false;
    out = {};
    out.bytes = section.substr(0, head.size);
    out.table_length = head.table_length;
    std::string_view rest = out.bytes.substr(sizeof head);
    out.rows.reserve(head.row_count);
    for (uint32 i = 0; i < head.row_count; ++i) {
        glue::module_row row;
        std::memcpy(&row, rest.data(), sizeof row);
        rest.remove_prefix(sizeof row);
        if (row.number >= head.table_length || (i != 0 && row.number <= out.rows.back().number))
            return false;
        out.rows.push_back(row);
    }
    return parse_texts(rest, out);
}

std::string objection(const description& module, std::string_view version, uint32 table_length,
                      const std::vector<glue::module_row>& rows) {
    if (major(module.framework) != major(version))
        return text_of(framework::module_other_version, module.framework, std::string(version));
    if (module.table_length > table_length)
        return text_of(framework::module_longer_table, std::to_string(module.table_length),
                       std::to_string(table_length));
    auto own = rows.begin();
    for (const glue::module_row& each : module.rows) {
        own = std::lower_bound(own, rows.end(), each.number,
                               [](const glue::module_row& row, uint32 wanted) { return row.number < wanted; });
        if (own == rows.end() || own->number != each.number)
            return text_of(framework::module_lacks_operation, std::to_string(each.number));
        if (own->form != each.form)
            return text_of(framework::module_other_operation, std::to_string(each.number));
    }
    return {};
}

std::string objection(const description& module) {
    static const auto& rows =
        *new std::vector<glue::module_row>(std::begin(glue::written_rows), std::end(glue::written_rows));
    return objection(module, glue::framework_version, glue::slot_count, rows);
}

} // namespace qor::module
