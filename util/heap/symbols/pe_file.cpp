#include "pe_file.h"

#include <algorithm>
#include <tuple>

namespace qor::heap {

namespace {

constexpr uint64 nowhere = ~uint64{0};

constexpr uint32 code_section = 0x00000020, executable_section = 0x20000000;
constexpr uint32 codeview = 2;
constexpr uint32 x86_64 = 0x8664;
constexpr uint32 function_size = 12;

} // namespace

// Beyond the end it is 0, and the file is known to be cut off.
uint32 pe_file::number(uint64 place, unsigned bytes) {
    if (place > m_bytes.size() || m_bytes.size() - place < bytes)
        m_is_whole = false;
    return number_or_0(place, bytes);
}

// Little-endian.
uint32 pe_file::number_or_0(uint64 place, unsigned bytes) const noexcept {
    if (place > m_bytes.size() || m_bytes.size() - place < bytes)
        return 0;
    uint32 result = 0;
    for (unsigned i = bytes; i-- != 0;)
        result = result << 8 | static_cast<unsigned char>(m_bytes[place + i]);
    return result;
}

std::string_view pe_file::text(uint64 place, std::size_t most) const {
    if (place >= m_bytes.size())
        return {};
    const std::string_view rest = m_bytes.substr(place, most);
    return rest.substr(0, rest.find('\0'));
}

bool pe_file::parse(std::string_view bytes) {
    *this = {};
    m_bytes = bytes;
    const uint64 header = number(0x3c, 4);
    if (bytes.substr(0, 2) != "MZ" || number(header, 4) != 0x4550)
        return false;
    const uint64 coff = header + 4;
    const uint64 optional = coff + 20;
    const uint32 magic = number(optional, 2);
    const bool is_64_bit = magic == 0x20b;
    if (!is_64_bit && magic != 0x10b)
        return false;
    m_image_base =
        is_64_bit ? number(optional + 24, 4) | uint64{number(optional + 28, 4)} << 32 : number(optional + 28, 4);
    // Long names of sections lie behind the table of symbols, of 18 bytes each.
    const uint64 names = number(coff + 8, 4) + uint64{18} * number(coff + 12, 4);
    read_sections(optional + number(coff + 16, 2), number(coff + 2, 2), names);
    const uint64 directories = optional + (is_64_bit ? 112 : 96);
    const uint32 count = number(directories - 4, 4);
    if (!m_is_whole)
        return false;
    if (count > 0)
        read_exports(number(directories, 4), number(directories + 4, 4));
    if (count > 3 && number(coff, 2) == x86_64)
        read_functions(number(directories + 24, 4), number(directories + 28, 4));
    if (count > 6)
        read_debug_directory(number(directories + 48, 4), number(directories + 52, 4));
    return true;
}

void pe_file::read_sections(uint64 headers, uint32 count, uint64 names) {
    count = std::min(count, most_sections);
    for (uint64 at = headers; count != 0 && m_is_whole; --count, at += 40) {
        section next{number(at + 12, 4), number(at + 8, 4), number(at + 20, 4), number(at + 16, 4), false, {}};
        next.is_code = (number(at + 36, 4) & (code_section | executable_section)) != 0;
        next.name = text(at, 8);
        if (next.name.substr(0, 1) == "/") {
            uint64 place = 0;
            for (const char digit : next.name.substr(1))
                place = digit >= '0' && digit <= '9' ? place * 10 + static_cast<uint64>(digit - '0') : nowhere / 20;
            next.name = text(names + place, 32);
        }
        if (m_is_whole)
            m_sections.push_back(next);
    }
}

// The place in the file of an address.
uint64 pe_file::place_of(uint32 address) const noexcept {
    for (const section& one : m_sections)
        if (address >= one.address && address - one.address < one.stored)
            return uint64{one.place} + (address - one.address);
    return nowhere;
}

void pe_file::read_debug_directory(uint32 address, uint32 size) {
    const uint64 begin = place_of(address);
    for (uint64 at = begin; begin != nowhere && at + 28 <= std::min<uint64>(begin + size, m_bytes.size()); at += 28) {
        const uint64 data = number(at + 24, 4);
        if (number(at + 12, 4) != codeview || text(data, 4) != "RSDS" || data + 20 > m_bytes.size())
            continue;
        m_build_id = m_bytes.substr(data + 4, 16);
        return;
    }
}

void pe_file::read_exports(uint32 address, uint32 size) {
    const uint64 directory = place_of(address);
    if (directory == nowhere)
        return;
    const uint32 functions = number(directory + 20, 4);
    const uint32 names = std::min(number(directory + 24, 4), most_exported);
    const uint64 address_table = place_of(number(directory + 28, 4));
    const uint64 name_table = place_of(number(directory + 32, 4));
    const uint64 ordinal_table = place_of(number(directory + 36, 4));
    if (address_table == nowhere || name_table == nowhere || ordinal_table == nowhere)
        return;
    for (uint64 i = 0; i < names && m_is_whole; ++i) {
        const uint32 ordinal = number(ordinal_table + 2 * i, 2);
        const uint64 name = place_of(number(name_table + 4 * i, 4));
        if (ordinal >= functions || name == nowhere)
            continue;
        const uint32 entry = number(address_table + uint64{4} * ordinal, 4);
        // In the directory itself lies the name of a function of another library.
        if (m_is_whole && is_code(entry) && (entry < address || entry - address >= size))
            m_exported.push_back({entry, text(name, longest_name)});
    }
    std::sort(m_exported.begin(), m_exported.end(), [](const exported& one, const exported& other) {
        return std::tie(one.address, one.name) < std::tie(other.address, other.name);
    });
}

std::string_view pe_file::content(std::string_view name) const noexcept {
    for (const section& one : m_sections)
        if (one.name == name && one.place < m_bytes.size())
            return m_bytes.substr(one.place, std::min(one.size, one.stored));
    return {};
}

const pe_file::section* pe_file::section_of(uint64 address) const noexcept {
    for (const section& one : m_sections)
        if (address >= one.address && address - one.address < std::max(one.size, one.stored))
            return &one;
    return nullptr;
}

bool pe_file::is_code(uint64 address) const noexcept {
    const section* const found = section_of(address);
    return found != nullptr && found->is_code;
}

void pe_file::read_functions(uint32 address, uint32 size) {
    m_functions = place_of(address);
    if (m_functions < m_bytes.size())
        m_function_count =
            static_cast<uint32>(std::min<uint64>(size, m_bytes.size() - m_functions) / uint64{function_size});
}

pe_file::function pe_file::function_of(uint64 place) const noexcept {
    return {number_or_0(place, 4), number_or_0(place + 4, 4), number_or_0(place + 8, 4)};
}

// Finds the last function that begins at the address or before it. Returns false without one.
bool pe_file::find_function(uint64 address, function& last) const noexcept {
    uint32 begin = 0;
    for (uint32 end = m_function_count; begin < end;) {
        const uint32 middle = begin + (end - begin) / 2;
        if (number_or_0(m_functions + uint64{middle} * function_size, 4) <= address)
            begin = middle + 1;
        else
            end = middle;
    }
    if (begin == 0)
        return false;
    last = function_of(m_functions + uint64{begin - 1} * function_size);
    return true;
}

// A function may be in several parts, which lead to its first one.
pe_file::function pe_file::whole_of(function part) const noexcept {
    constexpr unsigned most_parts = 32, is_part = 4 << 3;
    for (unsigned i = 0; i < most_parts; ++i) {
        const uint64 place = place_of(part.unwind);
        if (place == nowhere || (number_or_0(place, 1) & is_part) == 0)
            break;
        part = function_of(place + 4 + (number_or_0(place + 2, 1) + 1) / 2 * 4); // behind the codes
    }
    return part;
}

std::string_view pe_file::first_name_at(uint32 address) const noexcept {
    const auto found = std::lower_bound(m_exported.begin(), m_exported.end(), address,
                                        [](const exported& one, uint32 value) { return one.address < value; });
    return found != m_exported.end() && found->address == address ? found->name : std::string_view();
}

std::string_view pe_file::exported_at(uint64 address) const noexcept {
    auto found = std::upper_bound(m_exported.begin(), m_exported.end(), address,
                                  [](uint64 value, const exported& one) { return value < one.address; });
    const bool has_one_before = found != m_exported.begin() && section_of((found - 1)->address) == section_of(address);
    const uint32 nearest = has_one_before ? (found - 1)->address : 0;
    function part;
    if ((has_one_before && nearest == address) || !find_function(address, part))
        return has_one_before ? first_name_at(nearest) : std::string_view();
    if (address >= part.end) // in no function of the table
        return has_one_before && nearest >= part.end ? first_name_at(nearest) : std::string_view();
    const uint32 begin = whole_of(part).begin;
    if (const std::string_view name = first_name_at(begin); !name.empty())
        return name;
    return has_one_before && nearest > part.begin && begin == part.begin ? first_name_at(nearest) : std::string_view();
}

} // namespace qor::heap
