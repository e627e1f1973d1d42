#include "program_file_windows.h"

#include "messages.h"
#include "shared/operator_names.h"
#include "wide_text_windows.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string_view>
#include <windows.h>

namespace qor::record {

namespace {

// The bytes of a file, which nobody can change meanwhile.
class mapped_file {
public:
    explicit mapped_file(const std::string& path) {
        m_file = CreateFileW(wide(path).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
        m_section = m_file != INVALID_HANDLE_VALUE ? CreateFileMappingW(m_file, nullptr, PAGE_READONLY, 0, 0, nullptr)
                                                   : nullptr;
        m_view = m_section != nullptr ? MapViewOfFile(m_section, FILE_MAP_READ, 0, 0, 0) : nullptr;
        LARGE_INTEGER size;
        if (m_view != nullptr && GetFileSizeEx(m_file, &size))
            m_bytes = {static_cast<const char*>(m_view), static_cast<std::size_t>(size.QuadPart)};
    }
    ~mapped_file() {
        if (m_view != nullptr)
            UnmapViewOfFile(m_view);
        if (m_section != nullptr)
            CloseHandle(m_section);
        if (m_file != INVALID_HANDLE_VALUE)
            CloseHandle(m_file);
    }
    mapped_file(const mapped_file&) = delete;
    mapped_file& operator=(const mapped_file&) = delete;

    // False: it is not in the file.
    template <class Type>
    bool get(std::uint64_t at, Type& to) const {
        if (at > m_bytes.size() || m_bytes.size() - at < sizeof to)
            return false;
        std::memcpy(&to, m_bytes.data() + at, sizeof to);
        return true;
    }
    std::string_view text(std::uint64_t at, std::size_t most) const {
        const std::string_view rest = at < m_bytes.size() ? m_bytes.substr(at, most) : std::string_view();
        return rest.substr(0, rest.find('\0'));
    }

private:
    HANDLE m_file = INVALID_HANDLE_VALUE;
    HANDLE m_section = nullptr;
    void* m_view = nullptr;
    std::string_view m_bytes;
};

// Where the header of the file for the linker begins, and the header. False: it is no program.
bool read_header(const mapped_file& file, std::uint64_t& at, IMAGE_FILE_HEADER& header) {
    IMAGE_DOS_HEADER first;
    std::uint32_t signature;
    if (!file.get(0, first) || first.e_magic != IMAGE_DOS_SIGNATURE ||
        !file.get(static_cast<std::uint32_t>(first.e_lfanew), signature) || signature != IMAGE_NT_SIGNATURE)
        return false;
    at = static_cast<std::uint32_t>(first.e_lfanew) + sizeof signature;
    return file.get(at, header);
}

bool has_extension(const std::string& path, std::string_view extension) {
    return path.size() >= extension.size() &&
           std::equal(extension.rbegin(), extension.rend(), path.rbegin(),
                      [](char one, char other) { return one == std::tolower(static_cast<unsigned char>(other)); });
}

} // namespace

std::string find_program(const std::string& name) {
    const std::wstring wanted = wide(name);
    std::wstring path(SearchPathW(nullptr, wanted.c_str(), L".exe", 0, nullptr, nullptr), L'\0');
    if (path.empty())
        return {};
    path.resize(SearchPathW(nullptr, wanted.c_str(), L".exe", static_cast<DWORD>(path.size()), path.data(), nullptr));
    const DWORD found = GetFileAttributesW(path.c_str());
    if (found == INVALID_FILE_ATTRIBUTES || (found & FILE_ATTRIBUTE_DIRECTORY) != 0)
        return {};
    return narrow(path);
}

bool look_at_program(const std::string& path) {
    if (has_extension(path, ".bat") || has_extension(path, ".cmd")) {
        say(message::is_script, {path});
        return false;
    }
    const mapped_file file(path);
    std::uint64_t at;
    IMAGE_FILE_HEADER header;
    if (!read_header(file, at, header) || header.Machine == IMAGE_FILE_MACHINE_AMD64)
        return true;
    say(header.Machine == IMAGE_FILE_MACHINE_I386 ? message::is_32_bit : message::is_of_other_processor, {path});
    return false;
}

std::vector<code_range> allocation_code_of(const std::string& path) {
    std::vector<code_range> found;
    const mapped_file file(path);
    std::uint64_t at;
    IMAGE_FILE_HEADER header;
    if (!read_header(file, at, header))
        return found;
    const std::uint64_t sections = at + sizeof header + header.SizeOfOptionalHeader;
    const std::uint64_t symbols = header.PointerToSymbolTable;
    const std::uint64_t names = symbols + std::uint64_t{header.NumberOfSymbols} * IMAGE_SIZEOF_SYMBOL;
    IMAGE_SYMBOL symbol;
    for (std::uint64_t i = 0;
         symbols != 0 && i < header.NumberOfSymbols && file.get(symbols + i * IMAGE_SIZEOF_SYMBOL, symbol);
         i += 1U + symbol.NumberOfAuxSymbols) {
        const std::uint64_t own_name = symbols + i * IMAGE_SIZEOF_SYMBOL;
        const std::string_view name =
            symbol.N.Name.Short != 0 ? file.text(own_name, 8) : file.text(names + symbol.N.Name.Long, 64);
        IMAGE_SECTION_HEADER section;
        if (std::ranges::find(operator_names, name) == std::end(operator_names) || symbol.SectionNumber <= 0 ||
            !file.get(sections + (static_cast<std::uint64_t>(symbol.SectionNumber) - 1) * sizeof section, section))
            continue;
        found.push_back({std::uint64_t{section.VirtualAddress} + symbol.Value, 0});
    }
    return found;
}

// Backslashes count only before a quotation mark.
std::string command_line(const std::vector<std::string>& words) {
    std::string line;
    for (const std::string& word : words) {
        if (!line.empty())
            line += ' ';
        if (!word.empty() && word.find_first_of(" \t\n\v\"") == word.npos) {
            line += word;
            continue;
        }
        line += '"';
        std::size_t backslashes = 0;
        for (const char c : word) {
            if (c == '"')
                line.append(backslashes + 1, '\\');
            backslashes = c == '\\' ? backslashes + 1 : 0;
            line += c;
        }
        line.append(backslashes, '\\') += '"';
    }
    return line;
}

} // namespace qor::record
