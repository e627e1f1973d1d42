// Checks one of the framework's libraries before and after the loader gets it. The loader trusts the headers of a file:
// if they are wrong, the process crashes while it maps, relocates or runs parts that do not exist.
#pragma once

#include "qor/glue/regular_file_posix.h"
#include "qor/system/Types.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qor::glue {

// An ELF file and its headers. The section table repeats the facts of the segment table, so an error in either shows
// up; and because it stands at the end of the file, a file that contains all of it is not truncated.
class library_file {
public:
    explicit library_file(const char* path) noexcept : m_file(open_regular_file(path, m_status)) {}
    library_file(const library_file&) = delete;
    library_file& operator=(const library_file&) = delete;
    ~library_file() {
        if (m_file >= 0)
            close(m_file);
    }

    // Returns whether this is a regular file of this word size, whose segments and sections lie inside it and agree.
    bool is_sound() noexcept { return read_headers() && segments_agree() && sections_agree(); }

private:
    using header = ElfW(Ehdr);
    using segment = ElfW(Phdr);
    using section = ElfW(Shdr);

    static constexpr std::size_t max_segments = 32; // linkers create about a dozen
    static constexpr std::size_t sections_at_once = 16;
    static constexpr uint64 page = 4096;

    bool read_at(void* buffer, std::size_t size, uint64 offset) const noexcept {
        auto* to = static_cast<char*>(buffer);
        while (size != 0) {
            const ssize_t got = pread(m_file, to, size, static_cast<off_t>(offset));
            if (got == 0 || (got < 0 && errno != EINTR))
                return false;
            if (got > 0) {
                to += got;
                offset += static_cast<uint64>(got);
                size -= static_cast<std::size_t>(got);
            }
        }
        return true;
    }

    static bool is_within(uint64 begin, uint64 size, uint64 whole_begin, uint64 whole_size) noexcept {
        return begin >= whole_begin && begin - whole_begin <= whole_size && size <= whole_size - (begin - whole_begin);
    }

    bool read_headers() noexcept {
        if (m_file < 0 || !read_at(&m_header, sizeof m_header, 0))
            return false;
        m_size = static_cast<uint64>(m_status.st_size);
        return std::memcmp(m_header.e_ident, ELFMAG, SELFMAG) == 0 &&
               m_header.e_ident[EI_CLASS] == (sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32) &&
               m_header.e_phentsize == sizeof(segment) && m_header.e_phnum <= max_segments &&
               read_at(m_segments, m_header.e_phnum * sizeof(segment), m_header.e_phoff) &&
               (m_header.e_shnum == 0 || m_header.e_shentsize == sizeof(section)) &&
               is_within(m_header.e_shoff, m_header.e_shnum * sizeof(section), 0, m_size);
    }

    // Mapped segments must lie inside the file and follow one another in memory. All other segments must be parts of
    // them, except processor-specific notes, which the loader ignores.
    bool segments_agree() const noexcept {
        uint64 end = 0;
        for (std::size_t i = 0; i < m_header.e_phnum; ++i) {
            const segment& one = m_segments[i];
            if (one.p_type == PT_LOAD) {
                if (!is_within(one.p_offset, one.p_filesz, 0, m_size) || one.p_filesz > one.p_memsz ||
                    one.p_vaddr < end || one.p_memsz > UINTPTR_MAX - one.p_vaddr)
                    return false;
                end = one.p_vaddr + one.p_memsz;
            } else if (one.p_type != PT_GNU_STACK && one.p_type < PT_LOPROC && one.p_filesz != 0 &&
                       !is_mapped(one.p_vaddr, one.p_filesz, one.p_offset, 0))
                return false;
            // The part that becomes read-only may have nothing behind its bytes in the file except the rest of the
            // page.
            if (one.p_type == PT_GNU_RELRO && one.p_memsz - one.p_filesz >= page)
                return false;
            if ((one.p_type == PT_LOAD || one.p_type == PT_TLS) && (one.p_align & (one.p_align - 1)) != 0)
                return false;
        }
        return true;
    }

    // Returns whether these bytes of the file are mapped to this address with these rights.
    bool is_mapped(uint64 address, uint64 size, uint64 offset, uint32 rights) const noexcept {
        for (std::size_t i = 0; i < m_header.e_phnum; ++i) {
            const segment& one = m_segments[i];
            if (one.p_type == PT_LOAD && is_within(offset, size, one.p_offset, one.p_filesz) &&
                address - one.p_vaddr == offset - one.p_offset && (one.p_flags & rights) == rights)
                return true;
        }
        return false;
    }

    // Returns whether a segment of this kind provides memory there with these rights.
    bool has_memory(uint32 kind, uint64 address, uint64 size, uint32 rights) const noexcept {
        for (std::size_t i = 0; i < m_header.e_phnum; ++i) {
            const segment& one = m_segments[i];
            if (one.p_type == kind && is_within(address, size, one.p_vaddr, one.p_memsz) &&
                (one.p_flags & rights) == rights)
                return true;
        }
        return false;
    }

    bool sections_agree() const noexcept {
        section some[sections_at_once];
        for (std::size_t i = 0; i < m_header.e_shnum; ++i) {
            const std::size_t place = i % sections_at_once;
            const std::size_t left = m_header.e_shnum - i;
            if (place == 0 && !read_at(some, (left < sections_at_once ? left : sections_at_once) * sizeof(section),
                                       m_header.e_shoff + i * sizeof(section)))
                return false;
            if ((some[place].sh_flags & SHF_ALLOC) != 0 && some[place].sh_size != 0 && !agrees(some[place]))
                return false;
        }
        return true;
    }

    bool agrees(const section& one) const noexcept {
        const bool of_a_thread = (one.sh_flags & SHF_TLS) != 0;
        if (of_a_thread && !has_memory(PT_TLS, one.sh_addr, one.sh_size, PF_R))
            return false;
        const uint32 rights =
            PF_R | ((one.sh_flags & SHF_WRITE) != 0 ? PF_W : 0u) | ((one.sh_flags & SHF_EXECINSTR) != 0 ? PF_X : 0u);
        if (one.sh_type != SHT_NOBITS)
            return is_mapped(one.sh_addr, one.sh_size, one.sh_offset, rights);
        return of_a_thread || has_memory(PT_LOAD, one.sh_addr, one.sh_size, rights);
    }

    struct stat m_status;
    const int m_file;
    uint64 m_size = 0;
    header m_header;
    segment m_segments[max_segments];
};

// Returns whether the loader may open this file. Another kind of file in its place, such as a FIFO, cannot block the
// process here.
inline bool is_whole(const char* path) noexcept { return library_file(path).is_sound(); }

// Returns whether an export of a library can be called: it must be a function that lies entirely in executable memory.
inline bool is_function(void* entry) noexcept {
    Dl_info info;
    void* found = nullptr;
    if (entry == nullptr || dladdr1(entry, &info, &found, RTLD_DL_SYMENT) == 0 || found == nullptr ||
        info.dli_saddr != entry)
        return false;
    const auto* const symbol = static_cast<const ElfW(Sym)*>(found);
    if (ELF64_ST_TYPE(symbol->st_info) != STT_FUNC || symbol->st_size == 0) // the same for 32 bits
        return false;
    struct code {
        std::uintptr_t begin, size;
    } sought{reinterpret_cast<std::uintptr_t>(entry), symbol->st_size};
    const auto holds = [](dl_phdr_info* object, std::size_t, void* context) noexcept {
        const code& wanted = *static_cast<const code*>(context);
        for (std::size_t i = 0; i < object->dlpi_phnum; ++i) {
            const ElfW(Phdr)& one = object->dlpi_phdr[i];
            const std::uintptr_t from = wanted.begin - object->dlpi_addr - one.p_vaddr;
            if (one.p_type == PT_LOAD && (one.p_flags & PF_X) != 0 && from < one.p_memsz &&
                wanted.size <= one.p_memsz - from)
                return 1;
        }
        return 0;
    };
    return dl_iterate_phdr(holds, &sought) != 0;
}

} // namespace qor::glue
