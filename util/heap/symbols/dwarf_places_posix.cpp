#include "dwarf_places_posix.h"

#include "demangled.h"

#include <algorithm>
#include <dwarf.h>
#include <span>

namespace qor::heap {

namespace {

// Entries that may hold functions with code, or inlined ones.
bool may_hold_functions(int tag) noexcept {
    switch (tag) {
    case DW_TAG_subprogram:
    case DW_TAG_inlined_subroutine:
    case DW_TAG_lexical_block:
    case DW_TAG_try_block:
    case DW_TAG_catch_block:
    case DW_TAG_namespace:
    case DW_TAG_module:
    case DW_TAG_class_type:
    case DW_TAG_structure_type:
    case DW_TAG_union_type:
        return true;
    default:
        return false;
    }
}

const char* text_of(Dwarf_Die& entry, unsigned name) {
    Dwarf_Attribute attribute;
    return dw().dwarf_formstring(dw().dwarf_attr_integrate(&entry, name, &attribute));
}

Dwarf_Word number_of(Dwarf_Die& entry, unsigned name) {
    Dwarf_Attribute attribute;
    Dwarf_Word result = 0;
    return dw().dwarf_formudata(dw().dwarf_attr(&entry, name, &attribute), &result) == 0 ? result : 0;
}

// Calls `each` for each range of an entry's code.
template <class CALL>
void each_range(Dwarf_Die& entry, const CALL& each) {
    Dwarf_Addr base, begin, end;
    for (ptrdiff_t at = 0; (at = dw().dwarf_ranges(&entry, at, &base, &begin, &end)) > 0;)
        each(begin, end);
}

} // namespace

dwarf_places::dwarf_places(Dwarf* of, const std::vector<elf_file::range>& code, module_answer& out)
    : m_dwarf(of), m_out(out) {
    for (const elf_file::range& range : code)
        m_code_begin = std::min(m_code_begin, range.begin);
}

template <class CALL>
void dwarf_places::each_address(uint64 begin, uint64 end, const CALL& call) {
    if (begin < m_code_begin)
        return;
    for (auto at = std::lower_bound(m_addresses->begin(), m_addresses->end(), begin);
         at != m_addresses->end() && *at < end; ++at)
        call(static_cast<uint32>(at - m_addresses->begin()));
}

void dwarf_places::find(const std::vector<uint64>& addresses) {
    m_addresses = &addresses;
    m_unit_of.assign(addresses.size(), none);
    find_units();
    // The numbers of the addresses, unit by unit.
    std::vector<uint32> order;
    for (uint32 i = 0; i < addresses.size(); ++i)
        if (m_unit_of[i] != none)
            order.push_back(i);
    std::stable_sort(order.begin(), order.end(),
                     [this](uint32 one, uint32 other) { return m_unit_of[one] < m_unit_of[other]; });
    for (auto at = order.begin(); at != order.end();) {
        m_unit = m_unit_of[*at];
        const auto end = std::find_if(at, order.end(), [this](uint32 i) { return m_unit_of[i] != m_unit; });
        Dwarf_Die& unit = m_units[m_unit];
        m_around.clear();
        walk(unit, 0);
        // The outer ones come before the inner ones.
        std::stable_sort(m_around.begin(), m_around.end(),
                         [](const around& one, const around& other) { return one.address < other.address; });
        const around* next = m_around.data();
        const around* const last = next + m_around.size();
        for (; at != end; ++at) {
            const around* const begin = next;
            while (next != last && next->address == *at)
                ++next;
            place(unit, *at, begin, next);
        }
    }
}

// Takes every unit, because .debug_aranges may be missing or incomplete. Reading the first entry of each costs less
// than walking one.
void dwarf_places::find_units() {
    Dwarf_CU* unit = nullptr;
    Dwarf_CU* next = nullptr;
    Dwarf_Half version;
    uint8 kind;
    Dwarf_Die entry;
    for (std::size_t count = 0; count < most_units; ++count, unit = next) {
        // Without a place for the entry of a split unit, libdw does not open the file that the unit names.
        if (dw().dwarf_get_units(m_dwarf, unit, &next, &version, &kind, &entry, nullptr) != 0)
            return;
        const int tag = dw().dwarf_tag(&entry);
        if (tag != DW_TAG_compile_unit && tag != DW_TAG_skeleton_unit)
            continue;
        const uint32 number = static_cast<uint32>(m_units.size());
        bool is_wanted = false;
        each_range(entry, [&](Dwarf_Addr begin, Dwarf_Addr end) {
            each_address(begin, end, [&](uint32 address) {
                if (m_unit_of[address] == none) {
                    m_unit_of[address] = number;
                    is_wanted = true;
                }
            });
        });
        if (is_wanted)
            m_units.push_back(entry);
    }
}

void dwarf_places::walk(Dwarf_Die parent, int depth) {
    Dwarf_Die entry;
    if (depth == deepest || dw().dwarf_child(&parent, &entry) != 0)
        return;
    for (;;) {
        const int tag = dw().dwarf_tag(&entry);
        if (may_hold_functions(tag)) {
            if (tag == DW_TAG_subprogram || tag == DW_TAG_inlined_subroutine)
                note(entry, depth);
            walk(entry, depth + 1);
        }
        // A reference to a sibling that lies before the entry would lead round in a circle.
        const void* const at = entry.addr;
        if (dw().dwarf_siblingof(&entry, &entry) != 0 || entry.addr <= at)
            return;
    }
}

void dwarf_places::note(Dwarf_Die& entry, int depth) {
    each_range(entry, [&](Dwarf_Addr begin, Dwarf_Addr end) {
        each_address(begin, end, [&](uint32 address) {
            if (m_unit_of[address] == m_unit)
                m_around.push_back({address, depth, entry});
        });
    });
}

void dwarf_places::place(Dwarf_Die& unit, uint32 address, const around* begin, const around* end) {
    std::vector<numbered_place>& places = m_out.places[address];
    numbered_place next;
    if (Dwarf_Line* const row = dw().dwarf_getsrc_die(&unit, (*m_addresses)[address])) {
        int line = 0;
        if (dw().dwarf_lineno(row, &line) == 0 && line > 0)
            next.line = static_cast<uint32>(line);
        next.file = path_of(dw().dwarf_linesrc(row, nullptr, nullptr));
    }
    int depth = deepest + 1;
    while (end != begin && places.size() + 1 < module_answer::most_places) {
        Dwarf_Die entry = (--end)->entry;
        // Two functions that were folded into one: the place has only one of them.
        if (end->depth >= depth)
            continue;
        depth = end->depth;
        next.function = name_of(entry);
        places.push_back(next);
        next = {};
        if (dw().dwarf_tag(&entry) == DW_TAG_subprogram)
            return;
        next.line = static_cast<uint32>(number_of(entry, DW_AT_call_line));
        Dwarf_Files* files;
        std::size_t count;
        const Dwarf_Word file = number_of(entry, DW_AT_call_file);
        if (dw().dwarf_getsrcfiles(&unit, &files, &count) == 0 && file < count)
            next.file = path_of(dw().dwarf_filesrc(files, file, nullptr, nullptr));
    }
    if (next.file != 0 || next.line != 0)
        places.push_back(next);
}

// The name is the same for all instances of an inlined function, so the texts of libdw are the keys: they stay at their
// places.
uint32 dwarf_places::name_of(Dwarf_Die& entry) {
    const char* name = text_of(entry, DW_AT_linkage_name);
    if (name == nullptr)
        name = text_of(entry, DW_AT_MIPS_linkage_name);
    if (name == nullptr)
        name = text_of(entry, DW_AT_name);
    if (name == nullptr)
        return 0;
    const auto [known, is_new] = m_names.try_emplace(name);
    if (is_new)
        known->second = m_out.number_of(demangled(name));
    return known->second;
}

uint32 dwarf_places::path_of(const char* path) {
    if (path == nullptr)
        return 0;
    const auto [known, is_new] = m_paths.try_emplace(path);
    if (is_new)
        known->second = m_out.number_of(path);
    return known->second;
}

} // namespace qor::heap
