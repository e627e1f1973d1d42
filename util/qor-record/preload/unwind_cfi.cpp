#include "unwind_cfi.h"
#include "unwind_cursor.h"

#include <cstring>

namespace qor::record {
namespace {

// The fields of a CIE that apply to its FDEs.
struct common_part {
    std::uint64_t code_alignment;
    std::int64_t data_alignment;
    unsigned pointer_encoding;
    bool has_sizes; // the augmentation tells how long it is
    bool is_signal;
    std::uintptr_t instructions;
    std::uintptr_t instructions_end;
};

// Returns the content of the entry at `address`, behind its length. The cursor is bad if there is no valid entry.
cursor entry_at(const frame_tables& tables, std::uintptr_t address) noexcept {
    cursor at(address < tables.begin ? tables.end + 1 : address, tables.end);
    const std::uint32_t length = at.take<std::uint32_t>();
    // 0 ends the table; longer ones than 4 GiB are not made for this processor.
    if (!at.good() || length == 0 || length > tables.end - at.position()) {
        at.fail();
        return at;
    }
    return cursor(at.position(), at.position() + length);
}

bool read_common_part(const frame_tables& tables, std::uintptr_t address, common_part& result) noexcept {
    cursor at = entry_at(tables, address);
    if (at.take<std::uint32_t>() != 0 || !at.good())
        return false;
    const std::uint8_t version = at.take<std::uint8_t>();
    if (version != 1 && version != 3)
        return false;
    const std::uintptr_t augmentation = at.position();
    while (at.take<std::uint8_t>() != 0) {
    }
    if (!at.good())
        return false;
    cursor letters(augmentation, at.position());
    result.code_alignment = at.take_uleb();
    result.data_alignment = at.take_sleb();
    const std::uint64_t return_column = version == 1 ? at.take<std::uint8_t>() : at.take_uleb();
    if (return_column != column::return_address || result.data_alignment > 127 || result.data_alignment < -128)
        return false;
    result.pointer_encoding = absolute;
    result.has_sizes = false;
    result.is_signal = false;
    for (std::uint8_t letter = letters.take<std::uint8_t>(); letter != 0; letter = letters.take<std::uint8_t>()) {
        switch (letter) {
        case 'z': {
            const std::uint64_t size = at.take_uleb();
            if (!at.good() || size > at.end() - at.position())
                return false;
            result.has_sizes = true;
            result.instructions = at.position() + size;
            break;
        }
        case 'R':
            result.pointer_encoding = at.take<std::uint8_t>();
            break;
        case 'L':
            at.skip(1);
            break;
        case 'P': {
            const std::uint8_t encoding = at.take<std::uint8_t>();
            at.take_pointer(encoding & format_bits, 0);
            break;
        }
        case 'S':
            result.is_signal = true;
            break;
        default:
            return false;
        }
    }
    if (!result.has_sizes)
        result.instructions = at.position();
    result.instructions_end = at.end();
    return at.good();
}

// Runs the instructions of a CIE, or of an FDE up to a program counter.
class row_machine {
public:
    row_machine(const frame_tables& tables, const common_part& common, frame_row& row) noexcept
        : m_tables(tables), m_common(common), m_row(row) {}

    // `initial`: the rules to which registers are restored; null in the CIE itself.
    bool run(cursor at, std::uintptr_t location, std::uintptr_t pc, const frame_row* initial) noexcept {
        unsigned remembered = 0;
        while (!at.at_end()) {
            const std::uint8_t op = at.take<std::uint8_t>();
            const unsigned low = op & 0x3f;
            std::uint64_t advance = 0;
            switch (op & 0xc0) {
            case 0x40:
                advance = low;
                break;
            case 0x80:
                save(low, at.take_uleb() * static_cast<std::uint64_t>(m_common.data_alignment));
                break;
            case 0xc0:
                restore(low, initial);
                break;
            default:
                switch (low) {
                case 0x00: // nop
                    break;
                case 0x01: // set_loc
                    location = at.take_pointer(m_common.pointer_encoding, 0);
                    if (location > pc)
                        return at.good() && m_good;
                    break;
                case 0x02: // advance_loc1
                    advance = at.take<std::uint8_t>();
                    break;
                case 0x03: // advance_loc2
                    advance = at.take<std::uint16_t>();
                    break;
                case 0x04: // advance_loc4
                    advance = at.take<std::uint32_t>();
                    break;
                case 0x0a: // remember_state
                    if (remembered == sizeof m_remembered / sizeof *m_remembered)
                        return false;
                    m_remembered[remembered++] = m_row;
                    break;
                case 0x0b: { // restore_state
                    if (remembered == 0)
                        return false;
                    m_row = m_remembered[--remembered];
                    break;
                }
                default:
                    rule(low, at, initial);
                }
            }
            if (!at.good() || !m_good)
                return false;
            location += advance * m_common.code_alignment;
            if (advance != 0 && location > pc)
                break;
        }
        return true;
    }

private:
    void rule(unsigned op, cursor& at, const frame_row* initial) noexcept {
        const std::int64_t scale = m_common.data_alignment;
        const auto scaled = [scale](std::int64_t value) {
            return static_cast<std::uint64_t>(value) * static_cast<std::uint64_t>(scale);
        };
        switch (op) {
        case 0x05: { // offset_extended
            const std::uint64_t number = at.take_uleb();
            save(number, at.take_uleb() * static_cast<std::uint64_t>(scale));
            break;
        }
        case 0x06: // restore_extended
            restore(at.take_uleb(), initial);
            break;
        case 0x07: // undefined
            set(at.take_uleb(), how::undefined, 0);
            break;
        case 0x08: // same_value
            set(at.take_uleb(), how::same, 0);
            break;
        case 0x09: { // register
            const std::uint64_t number = at.take_uleb();
            set(number, how::in_register, at.take_uleb());
            break;
        }
        case 0x0c: { // def_cfa
            const std::uint64_t number = at.take_uleb();
            set_cfa(number, at.take_uleb());
            break;
        }
        case 0x0d: // def_cfa_register
            set_cfa(at.take_uleb(), static_cast<std::uint64_t>(std::int64_t{m_row.cfa.value}));
            break;
        case 0x0e: // def_cfa_offset
            set_cfa(m_row.cfa_register, at.take_uleb());
            break;
        case 0x0f: // def_cfa_expression
            m_row.cfa.kind = how::expression;
            m_row.cfa.value = take_expression(at);
            break;
        case 0x10: { // expression
            const std::uint64_t number = at.take_uleb();
            set(number, how::at_expression, static_cast<std::uint64_t>(std::int64_t{take_expression(at)}));
            break;
        }
        case 0x11: { // offset_extended_sf
            const std::uint64_t number = at.take_uleb();
            save(number, scaled(at.take_sleb()));
            break;
        }
        case 0x12: { // def_cfa_sf
            const std::uint64_t number = at.take_uleb();
            set_cfa(number, scaled(at.take_sleb()));
            break;
        }
        case 0x13: // def_cfa_offset_sf
            set_cfa(m_row.cfa_register, scaled(at.take_sleb()));
            break;
        case 0x14: { // val_offset
            const std::uint64_t number = at.take_uleb();
            set(number, how::offset, at.take_uleb() * static_cast<std::uint64_t>(scale));
            break;
        }
        case 0x15: { // val_offset_sf
            const std::uint64_t number = at.take_uleb();
            set(number, how::offset, scaled(at.take_sleb()));
            break;
        }
        case 0x16: { // val_expression
            const std::uint64_t number = at.take_uleb();
            set(number, how::expression, static_cast<std::uint64_t>(std::int64_t{take_expression(at)}));
            break;
        }
        case 0x2e: // GNU_args_size
            at.take_uleb();
            break;
        case 0x2f: { // GNU_negative_offset_extended
            const std::uint64_t number = at.take_uleb();
            save(number, std::uint64_t{0} - at.take_uleb() * static_cast<std::uint64_t>(scale));
            break;
        }
        default:
            m_good = false;
        }
    }

    // The numbers are those of the table, so that they may be anything.
    void set(std::uint64_t number, how kind, std::uint64_t value) noexcept {
        const std::int64_t narrow = static_cast<std::int64_t>(value);
        if (narrow != static_cast<std::int32_t>(narrow))
            m_good = false;
        else if (number < column::count)
            m_row.registers[number] = {kind, static_cast<std::int32_t>(narrow)};
    }

    void save(std::uint64_t number, std::uint64_t offset) noexcept { set(number, how::at_offset, offset); }

    void restore(std::uint64_t number, const frame_row* initial) noexcept {
        if (initial == nullptr)
            m_good = false;
        else if (number < column::count)
            m_row.registers[number] = initial->registers[number];
    }

    void set_cfa(std::uint64_t number, std::uint64_t offset) noexcept {
        const std::int64_t narrow = static_cast<std::int64_t>(offset);
        if (narrow != static_cast<std::int32_t>(narrow) || number >= column::count) {
            m_good = false;
            return;
        }
        m_row.cfa = {how::offset, static_cast<std::int32_t>(narrow)};
        m_row.cfa_register = static_cast<std::uint8_t>(number);
    }

    std::int32_t take_expression(cursor& at) noexcept {
        const std::uintptr_t distance = at.position() - m_tables.begin;
        at.skip(at.take_uleb());
        if (distance > 0x7fffffff)
            m_good = false;
        return static_cast<std::int32_t>(distance);
    }

    const frame_tables& m_tables;
    const common_part& m_common;
    frame_row& m_row;
    frame_row m_remembered[3];
    bool m_good = true;
};

// The FDE that may hold the program counter, by the sorted table in the header.
bool find_entry(const frame_tables& tables, std::uintptr_t pc, std::uintptr_t& entry) noexcept {
    cursor at(tables.header < tables.begin ? tables.end + 1 : tables.header, tables.end);
    const std::uint8_t version = at.take<std::uint8_t>();
    const std::uint8_t frames_encoding = at.take<std::uint8_t>();
    const std::uint8_t count_encoding = at.take<std::uint8_t>();
    const std::uint8_t table_encoding = at.take<std::uint8_t>();
    if (version != 1 || (count_encoding & (base_bits | indirect)) != 0 ||
        table_encoding != (relative_to_header | sdata4))
        return false;
    at.take_pointer(frames_encoding, tables.header);
    const std::uint64_t count = at.take_pointer(count_encoding, 0);
    struct row {
        std::int32_t location;
        std::int32_t entry;
    };
    if (!at.good() || count == 0 || count > (tables.end - at.position()) / sizeof(row))
        return false;
    const auto row_at = [&at](std::uint64_t index) {
        row result;
        std::memcpy(&result, reinterpret_cast<const void*>(at.position() + index * sizeof result), sizeof result);
        return result;
    };
    const auto absolute_address = [&tables](std::int32_t distance) {
        return tables.header + static_cast<std::uintptr_t>(std::int64_t{distance});
    };
    std::uint64_t low = 0;
    std::uint64_t high = count;
    while (low < high) {
        const std::uint64_t middle = low + (high - low) / 2;
        if (absolute_address(row_at(middle).location) <= pc)
            low = middle + 1;
        else
            high = middle;
    }
    if (low == 0)
        return false;
    entry = absolute_address(row_at(low - 1).entry);
    return true;
}

} // namespace

bool find_row(const frame_tables& tables, std::uintptr_t pc, frame_row& row) noexcept {
    std::uintptr_t entry;
    if (tables.header == 0 || !find_entry(tables, pc, entry))
        return false;
    cursor at = entry_at(tables, entry);
    const std::uintptr_t place = at.position();
    const std::uint32_t distance = at.take<std::uint32_t>();
    common_part common;
    if (!at.good() || distance == 0 || distance > place - tables.begin ||
        !read_common_part(tables, place - distance, common) || (common.pointer_encoding & indirect) != 0)
        return false;
    const std::uintptr_t begin = at.take_pointer(common.pointer_encoding, 0);
    const std::uintptr_t size = at.take_pointer(common.pointer_encoding & format_bits, 0);
    if (common.has_sizes)
        at.skip(at.take_uleb());
    if (!at.good() || pc < begin || pc - begin >= size)
        return false;

    row = {};
    row.is_signal = common.is_signal;
    row.function = begin;
    row_machine machine(tables, common, row);
    if (!machine.run(cursor(common.instructions, common.instructions_end), 0, ~std::uintptr_t{0}, nullptr))
        return false;
    const frame_row initial = row;
    return machine.run(at, begin, pc, &initial) && row.cfa.kind != how::unspecified;
}

bool step(const frame_tables& tables, const frame_row& row, register_set& registers, memory_reader& memory) noexcept {
    std::uintptr_t cfa;
    if (row.cfa.kind == how::expression) {
        if (!evaluate(tables, row.cfa.value, registers, memory, nullptr, cfa))
            return false;
    } else {
        if (!registers.knows(row.cfa_register))
            return false;
        cfa = registers.values[row.cfa_register] + static_cast<std::uintptr_t>(std::int64_t{row.cfa.value});
    }

    register_set caller{};
    for (unsigned number = 0; number < column::count; ++number) {
        const register_rule& rule = row.registers[number];
        const std::uintptr_t at = cfa + static_cast<std::uintptr_t>(std::int64_t{rule.value});
        const bool is_kept =
            number == column::rbx || number == column::rbp || (number >= column::r12 && number <= column::r15);
        bool known = true;
        std::uintptr_t value = 0;
        switch (rule.kind) {
        case how::unspecified:
            known = number == column::rsp || (is_kept && registers.knows(number));
            value = number == column::rsp ? cfa : registers.values[number];
            break;
        case how::same:
            known = registers.knows(number);
            value = registers.values[number];
            break;
        case how::undefined:
            known = false;
            break;
        case how::at_offset:
            known = memory.read(at, value);
            break;
        case how::offset:
            value = at;
            break;
        case how::in_register:
            known = rule.value >= 0 && rule.value < static_cast<std::int32_t>(column::count) &&
                    registers.knows(static_cast<unsigned>(rule.value));
            value = known ? registers.values[rule.value] : 0;
            break;
        case how::at_expression:
            known = evaluate(tables, rule.value, registers, memory, &cfa, value) && memory.read(value, value);
            break;
        case how::expression:
            known = evaluate(tables, rule.value, registers, memory, &cfa, value);
            break;
        }
        if (known)
            caller.set(number, value);
    }
    // A frame is left by a jump to what was saved; without that there is no caller, or it cannot be found.
    const how way_back = row.registers[column::return_address].kind;
    if (!caller.knows(column::return_address) && way_back != how::undefined && way_back != how::unspecified)
        return false;
    registers = caller;
    return true;
}

} // namespace qor::record
