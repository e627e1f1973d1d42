// Object files, opened without waiting and only if they are regular files.
#pragma once

#include "dw_library_posix.h"
#include "qor/system/Types.h"

#include <string>
#include <vector>

namespace qor::heap {

class elf_file {
public:
    elf_file() = default;
    elf_file(elf_file&& other) noexcept { swap(other); }
    elf_file& operator=(elf_file&& other) noexcept {
        swap(other);
        return *this;
    }
    ~elf_file();

    enum class outcome : uint8 { good, no_file, not_regular, no_object_file };

    // Opens the file, once for each object.
    outcome open(const std::string& path);

    // Takes over a descriptor of a file.
    outcome take(int descriptor, const std::string& path);

    bool is_open() const noexcept { return m_elf != nullptr; }
    Elf* elf() const noexcept { return m_elf; }
    const std::string& path() const noexcept { return m_path; }
    const std::string& build_id() const noexcept { return m_build_id; } // raw bytes; empty: it has none
    uint64 written_ns() const noexcept { return m_written_ns; }         // the last change, since 1970
    const std::string& reason() const noexcept { return m_reason; }     // of a failure, may be empty

    // Null: there is no section of this name or kind that has content.
    Elf_Scn* section(const char* name) const;
    Elf_Scn* section(GElf_Word kind) const;

    bool has_debug_information() const;

    // The checksum that .gnu_debuglink of another file names.
    uint32 checksum() const;

    struct range {
        uint64 begin, end;
    };
    std::vector<range> code() const;

private:
    void swap(elf_file& other) noexcept;

    int m_descriptor = -1;
    Elf* m_elf = nullptr;
    uint64 m_written_ns = 0;
    std::string m_path, m_build_id, m_reason;
};

} // namespace qor::heap
