#include "program.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qor::check {
namespace {

// A file in memory.
class mapped_file {
public:
    // Returns 0 or the system's error code.
    int open(const char* path) {
        struct stat status {};
        const int file = glue::open_regular_file(path, status);
        if (file < 0)
            return errno;
        m_size = static_cast<std::size_t>(status.st_size);
        void* const made = m_size != 0 ? mmap(nullptr, m_size, PROT_READ, MAP_PRIVATE, file, 0) : MAP_FAILED;
        const int reason = errno;
        ::close(file);
        if (m_size != 0 && made == MAP_FAILED)
            return reason;
        m_bytes = m_size != 0 ? made : nullptr;
        return 0;
    }
    mapped_file() = default;
    mapped_file(const mapped_file&) = delete;
    mapped_file& operator=(const mapped_file&) = delete;
    ~mapped_file() {
        if (m_bytes != nullptr)
            munmap(m_bytes, m_size);
    }

    std::string_view bytes() const { return {static_cast<const char*>(m_bytes), m_bytes != nullptr ? m_size : 0}; }

private:
    void* m_bytes = nullptr;
    std::size_t m_size = 0;
};

// Reads a structure at a place. Returns false if the file ends before.
template <class TYPE>
bool take(std::string_view file, uint64 at, TYPE& out) {
    if (at > file.size() || file.size() - at < sizeof out)
        return false;
    std::memcpy(&out, file.data() + at, sizeof out);
    return true;
}

// Splits a list of folders at its colons, and says where $ORIGIN is. An empty entry is the current folder, which the
// loader accepts too.
std::vector<std::string> folders_of(std::string_view list, const std::string& origin) {
    std::vector<std::string> found;
    while (!list.empty()) {
        const std::size_t end = std::min(list.find(':'), list.size());
        std::string folder(list.substr(0, end));
        for (const std::string_view name : {"${ORIGIN}", "$ORIGIN"})
            for (std::size_t at = folder.find(name); at != folder.npos; at = folder.find(name, at + origin.size()))
                folder.replace(at, name.size(), origin);
        found.push_back(folder.empty() ? "." : folder);
        list.remove_prefix(std::min(end + 1, list.size()));
    }
    return found;
}

// The run path of an ELF file. Returns false if it is none of this machine.
bool read_run_path(std::string_view file, const std::string& origin, program& out) {
    ElfW(Ehdr) header;
    constexpr unsigned char word_size = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;
    if (!take(file, 0, header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_ident[EI_CLASS] != word_size || (header.e_type != ET_EXEC && header.e_type != ET_DYN))
        return false;
    std::vector<ElfW(Phdr)> segments(header.e_phnum);
    ElfW(Phdr) dynamic{};
    for (std::size_t i = 0; i < segments.size(); ++i) {
        if (!take(file, header.e_phoff + i * sizeof segments[i], segments[i]))
            return false;
        if (segments[i].p_type == PT_DYNAMIC)
            dynamic = segments[i];
    }
    uint64 texts = 0;
    uint64 old_path = 0;
    uint64 new_path = 0;
    for (uint64 at = 0; at + sizeof(ElfW(Dyn)) <= dynamic.p_filesz; at += sizeof(ElfW(Dyn))) {
        ElfW(Dyn) entry;
        if (!take(file, dynamic.p_offset + at, entry) || entry.d_tag == DT_NULL)
            break;
        if (entry.d_tag == DT_STRTAB)
            texts = entry.d_un.d_ptr;
        else if (entry.d_tag == DT_RPATH)
            old_path = entry.d_un.d_val;
        else if (entry.d_tag == DT_RUNPATH)
            new_path = entry.d_un.d_val;
    }
    for (const ElfW(Phdr) & each : segments) {
        if (each.p_type != PT_LOAD || texts < each.p_vaddr || texts - each.p_vaddr >= each.p_filesz)
            continue;
        const uint64 begin = each.p_offset + (texts - each.p_vaddr);
        const auto text = [&](uint64 offset) {
            const std::string_view rest = begin + offset < file.size() ? file.substr(begin + offset) : "";
            return rest.substr(0, rest.find('\0'));
        };
        // With the new kind, the loader does not look at the old one.
        if (new_path != 0)
            out.folders_behind = folders_of(text(new_path), origin);
        else if (old_path != 0)
            out.folders_before = folders_of(text(old_path), origin);
    }
    return true;
}

} // namespace

read_result read_program(const std::string& path, program& out, std::string& reason) {
    char* const whole = realpath(path.c_str(), nullptr);
    int code = errno;
    mapped_file file;
    if (whole != nullptr) {
        out.path = whole;
        std::free(whole);
        code = file.open(out.path.c_str());
        // Not every kind of file has a code of its own.
        if (code == ESPIPE)
            return read_result::no_program;
    }
    if (code != 0 || whole == nullptr) {
        reason = std::strerror(code);
        return read_result::unreadable;
    }
    const std::string folder = out.path.substr(0, std::max<std::size_t>(out.path.rfind('/'), 1));
    if (!read_run_path(file.bytes(), folder, out))
        return read_result::no_program;
    find_client(file.bytes(), out);
    return read_result::read;
}

} // namespace qor::check
