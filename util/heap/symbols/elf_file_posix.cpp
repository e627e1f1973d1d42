#include "elf_file_posix.h"

#include "qor/glue/regular_file_posix.h"

#include <array>
#include <cstring>
#include <utility>

namespace qor::heap {

elf_file::~elf_file() {
    if (m_elf != nullptr)
        dw().elf_end(m_elf);
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

void elf_file::swap(elf_file& other) noexcept {
    std::swap(m_descriptor, other.m_descriptor);
    std::swap(m_elf, other.m_elf);
    std::swap(m_written_ns, other.m_written_ns);
    m_path.swap(other.m_path);
    m_build_id.swap(other.m_build_id);
    m_reason.swap(other.m_reason);
}

elf_file::outcome elf_file::open(const std::string& path) {
    struct stat status;
    const int descriptor = glue::open_regular_file(path.c_str(), status);
    if (descriptor >= 0)
        return take(descriptor, path);
    m_reason = std::strerror(errno);
    return errno == ESPIPE || errno == EISDIR ? outcome::not_regular : outcome::no_file;
}

elf_file::outcome elf_file::take(int descriptor, const std::string& path) {
    m_path = path;
    m_descriptor = descriptor;
    struct stat status;
    if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode))
        return outcome::not_regular;
    // Files in /proc say so; reading one of them may block.
    if (status.st_size == 0)
        return outcome::no_object_file;
    m_written_ns = static_cast<uint64>(status.st_mtim.tv_sec) * 1'000'000'000 + status.st_mtim.tv_nsec;
    m_elf = dw().elf_begin(descriptor, ELF_C_READ_MMAP, nullptr);
    if (m_elf == nullptr || dw().elf_kind(m_elf) != ELF_K_ELF) {
        dw().elf_end(std::exchange(m_elf, nullptr));
        return outcome::no_object_file;
    }
    const void* id;
    if (const auto size = dw().dwelf_elf_gnu_build_id(m_elf, &id); size > 0)
        m_build_id.assign(static_cast<const char*>(id), static_cast<std::size_t>(size));
    return outcome::good;
}

Elf_Scn* elf_file::section(const char* name) const {
    std::size_t names;
    if (dw().elf_getshdrstrndx(m_elf, &names) != 0)
        return nullptr;
    for (Elf_Scn* at = nullptr; (at = dw().elf_nextscn(m_elf, at)) != nullptr;) {
        GElf_Shdr header;
        if (dw().gelf_getshdr(at, &header) == nullptr || header.sh_type == SHT_NOBITS)
            continue;
        const char* const found = dw().elf_strptr(m_elf, names, header.sh_name);
        if (found != nullptr && std::strcmp(found, name) == 0)
            return at;
    }
    return nullptr;
}

Elf_Scn* elf_file::section(GElf_Word kind) const {
    for (Elf_Scn* at = nullptr; (at = dw().elf_nextscn(m_elf, at)) != nullptr;) {
        GElf_Shdr header;
        if (dw().gelf_getshdr(at, &header) != nullptr && header.sh_type == kind)
            return at;
    }
    return nullptr;
}

bool elf_file::has_debug_information() const {
    return section(".debug_info") != nullptr || section(".zdebug_info") != nullptr;
}

// CRC-32 as in Ethernet and gzip.
uint32 elf_file::checksum() const {
    static const auto table = [] {
        std::array<uint32, 256> result{};
        for (uint32 i = 0; i < 256; ++i) {
            result[i] = i;
            for (int bit = 0; bit < 8; ++bit)
                result[i] = result[i] >> 1 ^ (0xedb88320 & (0 - (result[i] & 1)));
        }
        return result;
    }();
    std::size_t size = 0;
    const char* const bytes = dw().elf_rawfile(m_elf, &size);
    uint32 sum = ~uint32{0};
    for (std::size_t i = 0; bytes != nullptr && i < size; ++i)
        sum = table[(sum ^ static_cast<unsigned char>(bytes[i])) & 0xff] ^ sum >> 8;
    return ~sum;
}

std::vector<elf_file::range> elf_file::code() const {
    std::vector<range> result;
    std::size_t count = 0;
    if (dw().elf_getphdrnum(m_elf, &count) != 0)
        return result;
    for (std::size_t i = 0; i < count; ++i) {
        GElf_Phdr header;
        if (dw().gelf_getphdr(m_elf, static_cast<int>(i), &header) != nullptr && header.p_type == PT_LOAD &&
            (header.p_flags & PF_X) != 0 && header.p_vaddr + header.p_memsz > header.p_vaddr)
            result.push_back({header.p_vaddr, header.p_vaddr + header.p_memsz});
    }
    return result;
}

} // namespace qor::heap
