#include "program_file.h"

#include "messages.h"
#include "process_facts.h"

#include <cstdlib>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <grp.h>
#include <link.h>
#include <span>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qor::record {

namespace {

// A file in memory, as far as it is whole.
class mapped_file {
public:
    explicit mapped_file(const std::string& path) {
        const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (file < 0)
            return;
        struct stat status;
        if (::fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0) {
            void* const mapped =
                ::mmap(nullptr, static_cast<std::size_t>(status.st_size), PROT_READ, MAP_PRIVATE, file, 0);
            if (mapped != MAP_FAILED)
                m_bytes = {static_cast<const char*>(mapped), static_cast<std::size_t>(status.st_size)};
        }
        ::close(file);
    }
    ~mapped_file() {
        if (!m_bytes.empty())
            ::munmap(const_cast<char*>(m_bytes.data()), m_bytes.size());
    }
    mapped_file(const mapped_file&) = delete;

    std::span<const char> bytes() const noexcept { return m_bytes; }
    std::string_view text(std::uint64_t offset, std::uint64_t size) const noexcept {
        return offset <= m_bytes.size() && size <= m_bytes.size() - offset
                   ? std::string_view(m_bytes.data() + offset, size)
                   : std::string_view();
    }
    template <class T>
    std::span<const T> table(std::uint64_t offset, std::uint64_t count) const noexcept {
        if (offset % alignof(T) != 0 || offset > m_bytes.size() || count > (m_bytes.size() - offset) / sizeof(T))
            return {};
        return {reinterpret_cast<const T*>(m_bytes.data() + offset), count};
    }

private:
    std::span<const char> m_bytes;
};

class elf_file {
public:
    explicit elf_file(const mapped_file& file) : m_file(file) {
        const auto headers = file.table<ElfW(Ehdr)>(0, 1);
        if (headers.empty() || std::memcmp(headers[0].e_ident, ELFMAG, SELFMAG) != 0)
            return;
        m_is_elf = true;
        m_header = headers[0];
        m_is_native = m_header.e_ident[EI_CLASS] == ELFCLASS64 && m_header.e_ident[EI_DATA] == ELFDATA2LSB;
        if (m_is_native) {
            m_segments = file.table<ElfW(Phdr)>(m_header.e_phoff, m_header.e_phnum);
            m_sections = file.table<ElfW(Shdr)>(m_header.e_shoff, m_header.e_shnum);
        }
    }

    bool is_elf() const noexcept { return m_is_elf; }
    bool is_native() const noexcept { return m_is_native; }
    unsigned machine() const noexcept { return m_header.e_machine; }

    // The program that the system starts to load this one; empty: nothing is loaded.
    std::string_view loader() const noexcept {
        for (const auto& each : m_segments)
            if (each.p_type == PT_INTERP)
                return m_file.text(each.p_offset, each.p_filesz).substr(0, each.p_filesz > 0 ? each.p_filesz - 1 : 0);
        return {};
    }

    // Calls visit(name, symbol) for the symbols of that kind of table.
    template <class Visitor>
    void visit_symbols(unsigned type, Visitor visit) const {
        for (const auto& section : m_sections) {
            if (section.sh_type != type || section.sh_link >= m_sections.size())
                continue;
            const auto& names = m_sections[section.sh_link];
            const std::string_view text = m_file.text(names.sh_offset, names.sh_size);
            for (const auto& symbol : m_file.table<ElfW(Sym)>(section.sh_offset, section.sh_size / sizeof(ElfW(Sym))))
                if (symbol.st_name < text.size())
                    visit(std::string_view(text.data() + symbol.st_name,
                                           ::strnlen(text.data() + symbol.st_name, text.size() - symbol.st_name)),
                          symbol);
        }
    }

private:
    const mapped_file& m_file;
    ElfW(Ehdr) m_header{};
    bool m_is_elf = false;
    bool m_is_native = false;
    std::span<const ElfW(Phdr)> m_segments;
    std::span<const ElfW(Shdr)> m_sections;
};

bool is_privileged(const std::string& path) {
    struct stat status;
    if (::stat(path.c_str(), &status) != 0)
        return false;
    if ((status.st_mode & S_ISUID) != 0 && status.st_uid != ::geteuid())
        return true;
    if ((status.st_mode & S_ISGID) == 0 || (status.st_mode & S_IXGRP) == 0 || status.st_gid == ::getegid())
        return false;
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(0, ::getgroups(0, nullptr))));
    const int count = ::getgroups(static_cast<int>(groups.size()), groups.data());
    for (int i = 0; i < count; ++i)
        if (groups[static_cast<std::size_t>(i)] == status.st_gid)
            return false;
    return true;
}

// "#!INTERPRETER [ARGUMENT]"; empty: it is no script.
std::string interpreter_of(const mapped_file& file) {
    std::string_view line = file.text(0, std::min<std::size_t>(file.bytes().size(), 256));
    if (!line.starts_with("#!"))
        return {};
    line = line.substr(2, line.find('\n') - 2);
    const std::size_t begin = line.find_first_not_of(" \t");
    if (begin == std::string_view::npos)
        return {};
    line = line.substr(begin);
    return std::string(line.substr(0, line.find_first_of(" \t\r")));
}

// The names of the operators new, as the linker knows them.
bool is_allocation_symbol(std::string_view name) { return name.starts_with("_Znwm") || name.starts_with("_Znam"); }

std::vector<code_range> allocation_code_in(const elf_file& elf) {
    std::vector<code_range> found;
    elf.visit_symbols(SHT_SYMTAB, [&](std::string_view name, const ElfW(Sym) & symbol) {
        if (symbol.st_shndx != SHN_UNDEF && symbol.st_size != 0 && is_allocation_symbol(name))
            found.push_back({symbol.st_value, symbol.st_value + symbol.st_size});
    });
    return found;
}

bool look_at(const std::string& path, program_facts& found, int depth) {
    if (is_privileged(path)) {
        say(message::is_privileged, {path});
        return false;
    }
    const mapped_file file(path);
    if (const std::string interpreter = interpreter_of(file); !interpreter.empty())
        return depth == 0 || ::access(interpreter.c_str(), X_OK) != 0 || look_at(interpreter, found, depth - 1);
    const elf_file elf(file);
    if (!elf.is_elf())
        return true;
    const mapped_file own_file("/proc/self/exe");
    const elf_file own(own_file);
    if (elf.is_native() && elf.loader().empty()) {
        say(message::is_static, {path});
        return false;
    }
    bool is_sanitized = false;
    elf.visit_symbols(SHT_DYNSYM, [&](std::string_view name, const ElfW(Sym) & symbol) {
        for (const std::string_view sanitizer :
             {"__asan_init", "__hwasan_init", "__lsan_init", "__msan_init", "__tsan_init"})
            is_sanitized = is_sanitized || name == sanitizer;
        found.has_own_malloc = found.has_own_malloc || (name == "malloc" && symbol.st_shndx != SHN_UNDEF);
    });
    if (is_sanitized) {
        say(message::is_sanitized, {path});
        return false;
    }
    if (!elf.is_native() || elf.machine() != own.machine() || elf.loader() != own.loader()) {
        say(message::is_foreign, {path});
        return false;
    }
    found.allocation_code = allocation_code_in(elf);
    return true;
}

} // namespace

std::string find_program(const std::string& name) {
    const auto is_program = [](const std::string& path) {
        struct stat status;
        return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && ::access(path.c_str(), X_OK) == 0;
    };
    if (name.find('/') != std::string::npos)
        return is_program(name) ? name : std::string();
    const char* const path = std::getenv("PATH");
    std::string_view rest = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
    for (bool is_last = false; !is_last;) {
        const std::size_t end = rest.find(':');
        is_last = end == std::string_view::npos;
        const std::string_view folder = rest.substr(0, end);
        rest = is_last ? std::string_view() : rest.substr(end + 1);
        if (std::string each = std::string(folder.empty() ? "." : folder) + '/' + name; is_program(each))
            return each;
    }
    return {};
}

bool look_at_program(const std::string& path, program_facts& found) {
    constexpr int longest_chain = 4; // scripts that are interpreted by scripts
    return look_at(path, found, longest_chain);
}

std::vector<code_range> allocation_code_of(std::int32_t process) {
    const mapped_file file(path_in_proc(process, "exe"));
    return allocation_code_in(elf_file(file));
}

} // namespace qor::record
