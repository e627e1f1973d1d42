// What a program or library of Windows says of itself, in its bytes. They may be damaged or made up.
#pragma once

#include "qor/system/Types.h"

#include <string>
#include <string_view>
#include <vector>

namespace qor::heap {

class pe_file {
public:
    // The bytes must outlive this object. False: they are no such file.
    bool parse(std::string_view bytes);

    uint64 image_base() const noexcept { return m_image_base; }

    // The GUID by which a debugger recognises the file, 16 bytes as they lie in it. Empty: it has none.
    const std::string& build_id() const noexcept { return m_build_id; }

    // The bytes of a section. Empty: no section has this name.
    std::string_view content(std::string_view name) const noexcept;

    // Addresses are those of the loaded file minus its beginning.
    bool is_code(uint64 address) const noexcept;

    // The exported function around the address. A file for 64 bits of x86 says where its functions end; in others it is
    // the one that begins at the address or, nearest of all, before it in the same section. Empty: none.
    std::string_view exported_at(uint64 address) const noexcept;

    struct exported {
        uint32 address;
        std::string_view name;
    };
    const std::vector<exported>& all_exported() const noexcept { return m_exported; }

    // Anything beyond them is left out. Windows itself loads at most 96 sections.
    static constexpr uint32 most_sections = 256, most_exported = 1'000'000;
    static constexpr std::size_t longest_name = 4096;

private:
    struct section {
        uint32 address, size, place, stored;
        bool is_code;
        std::string_view name;
    };

    // Of the table for exceptions. Functions that call no other one and keep no register need no entry.
    struct function {
        uint32 begin, end, unwind;
    };

    uint32 number(uint64 place, unsigned bytes);
    uint32 number_or_0(uint64 place, unsigned bytes) const noexcept;
    function function_of(uint64 place) const noexcept;
    bool find_function(uint64 address, function& last) const noexcept;
    function whole_of(function part) const noexcept;
    std::string_view text(uint64 place, std::size_t most) const;
    uint64 place_of(uint32 address) const noexcept;
    void read_sections(uint64 headers, uint32 count, uint64 names);
    void read_debug_directory(uint32 address, uint32 size);
    void read_exports(uint32 address, uint32 size);
    void read_functions(uint32 address, uint32 size);
    const section* section_of(uint64 address) const noexcept;
    std::string_view first_name_at(uint32 address) const noexcept;

    std::string_view m_bytes;
    bool m_is_whole = true; // no number lay beyond the end
    uint64 m_image_base = 0;
    std::string m_build_id;
    std::vector<section> m_sections;
    std::vector<exported> m_exported; // ascending
    uint64 m_functions = 0;           // the place of the table
    uint32 m_function_count = 0;
};

} // namespace qor::heap
