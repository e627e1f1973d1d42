#include "symbol_table_posix.h"

#include <algorithm>
#include <tuple>

namespace qor::heap {

bool symbol_table::add(const elf_file& file) { return add(file, SHT_SYMTAB); }
bool symbol_table::add_dynamic(const elf_file& file) { return add(file, SHT_DYNSYM); }

bool symbol_table::add(const elf_file& file, GElf_Word kind) {
    Elf_Scn* const section = file.section(kind);
    GElf_Shdr header;
    if (section == nullptr || dw().gelf_getshdr(section, &header) == nullptr || header.sh_entsize == 0)
        return false;
    Elf_Data* const data = dw().elf_getdata(section, nullptr);
    if (data == nullptr)
        return false;
    // The ends of the sections by their numbers.
    std::vector<uint64> ends(1);
    for (Elf_Scn* at = nullptr; (at = dw().elf_nextscn(file.elf(), at)) != nullptr;) {
        GElf_Shdr one;
        ends.push_back(dw().gelf_getshdr(at, &one) != nullptr ? one.sh_addr + one.sh_size : 0);
    }
    const std::size_t count = std::min<std::size_t>(data->d_size / header.sh_entsize, most);
    for (std::size_t i = 0; i < count; ++i) {
        GElf_Sym symbol;
        if (dw().gelf_getsym(data, static_cast<int>(i), &symbol) == nullptr)
            break;
        const auto type = GELF_ST_TYPE(symbol.st_info);
        const bool is_code = type == STT_FUNC || type == STT_GNU_IFUNC || type == STT_NOTYPE;
        if (!is_code || symbol.st_shndx == SHN_UNDEF || symbol.st_shndx == SHN_ABS || symbol.st_value == 0)
            continue;
        const char* const name = dw().elf_strptr(file.elf(), header.sh_link, symbol.st_name);
        if (name == nullptr || name[0] == 0)
            continue;
        // The functions behind a label may be missing here.
        if (kind == SHT_DYNSYM && symbol.st_size == 0)
            continue;
        const auto binding = GELF_ST_BIND(symbol.st_info);
        const uint8 rank = binding == STB_GLOBAL ? 0 : binding == STB_WEAK ? 1 : 2;
        const uint64 limit = symbol.st_size != 0             ? symbol.st_value + symbol.st_size
                             : symbol.st_shndx < ends.size() ? ends[symbol.st_shndx]
                                                             : 0;
        m_functions.push_back({symbol.st_value, symbol.st_size, limit, name, rank});
    }
    return true;
}

void symbol_table::sort() {
    // Of those that begin at one place, the one that `at` shall find is the last.
    std::stable_sort(m_functions.begin(), m_functions.end(), [](const function& one, const function& other) {
        return std::make_tuple(one.begin, one.size != 0, -one.rank) <
               std::make_tuple(other.begin, other.size != 0, -other.rank);
    });
}

const char* symbol_table::at(uint64 address) const {
    auto found = std::upper_bound(m_functions.begin(), m_functions.end(), address,
                                  [](uint64 value, const function& one) { return value < one.begin; });
    // A label within a function has no size, and some functions lie within others. A few steps back are enough.
    const char* label = nullptr;
    for (int steps = 0; steps < 64 && found != m_functions.begin(); ++steps) {
        --found;
        if (address - found->begin < found->size)
            return found->name;
        // A label ends where the next symbol begins.
        if (found->size == 0 && steps == 0 && address < found->limit)
            label = found->name;
    }
    return label;
}

} // namespace qor::heap
