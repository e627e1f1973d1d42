// Functions by the table of symbols, for code without debug information.
#pragma once

#include "elf_file_posix.h"

#include <string_view>
#include <vector>

namespace qor::heap {

class symbol_table {
public:
    // Adds the functions of a file, if it has a full table; the files must outlive this object. False: it has none.
    bool add(const elf_file& file);

    // Adds those that the file offers to others.
    bool add_dynamic(const elf_file& file);

    // After the last addition.
    void sort();

    // Null: no function is known there.
    const char* at(uint64 address) const;

    static constexpr std::size_t most = 20'000'000;

private:
    struct function {
        uint64 begin, size; // the size of a label is 0
        uint64 limit;       // where it ends at the latest: a label with its section
        const char* name;
        uint8 rank; // the lower of two at the same place is shown
    };

    bool add(const elf_file& file, GElf_Word kind);

    std::vector<function> m_functions;
};

} // namespace qor::heap
