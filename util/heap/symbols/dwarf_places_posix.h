// Places of code by DWARF.
#pragma once

#include "elf_file_posix.h"
#include "module_answer.h"

#include <unordered_map>
#include <vector>

namespace qor::heap {

// The units are searched for the addresses, and the entries of a unit that has some are walked once, which finds all
// functions around all of them.
class dwarf_places {
public:
    // `code`: addresses outside of it are not looked up. A linker sets functions that it drops to places outside of it.
    dwarf_places(Dwarf* of, const std::vector<elf_file::range>& code, module_answer& out);

    // Fills in the places of the answer. The addresses ascend. Where the functions are unknown and the line is known,
    // there is one place without a function.
    void find(const std::vector<uint64>& addresses);

    // Damaged or odd information beyond these limits is left out.
    static constexpr std::size_t most_units = 1'000'000;
    static constexpr int deepest = 256; // entries within each other

private:
    // A function or an inlined one around an address.
    struct around {
        uint32 address; // its number
        int32 depth;
        Dwarf_Die entry;
    };

    void find_units();
    void walk(Dwarf_Die parent, int depth);
    void note(Dwarf_Die& entry, int depth);
    void place(Dwarf_Die& unit, uint32 address, const around* begin, const around* end);
    uint32 name_of(Dwarf_Die& entry);
    uint32 path_of(const char* path);

    // The numbers of the addresses within [begin, end), of those that the walk is for.
    template <class CALL>
    void each_address(uint64 begin, uint64 end, const CALL& call);

    Dwarf* m_dwarf;
    uint64 m_code_begin = ~uint64{0};
    module_answer& m_out;
    const std::vector<uint64>* m_addresses = nullptr;
    std::vector<around> m_around;
    std::vector<Dwarf_Die> m_units;
    std::vector<uint32> m_unit_of; // of each address: a number in m_units, or none
    uint32 m_unit = 0;             // that is walked
    std::unordered_map<const void*, uint32> m_names, m_paths;

    static constexpr uint32 none = ~uint32{0};
};

} // namespace qor::heap
