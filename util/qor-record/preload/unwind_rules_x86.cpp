#include "unwind_rules.h"
#include "unwind_stack.h"

#include <cstring>

namespace qor::record {

constinit rule_cache::entry rule_cache::entries[1u << rule_cache::index_bits]{};

namespace {

bool no_memory(memory_reader&, std::uintptr_t, std::uintptr_t&) noexcept { return false; }

// Stubs of the procedure linkage table: the offset from the stack pointer depends on the program counter alone.
bool offset_from_sp(const frame_tables& tables, std::int32_t expression, std::uintptr_t pc,
                    std::int64_t& offset) noexcept {
    constexpr std::uintptr_t far = std::uintptr_t{1} << 40;
    memory_reader memory{&no_memory};
    register_set registers{};
    std::uintptr_t near_result;
    std::uintptr_t far_result;
    registers.set(column::return_address, pc);
    registers.set(column::rsp, 0);
    if (!evaluate(tables, expression, registers, memory, nullptr, near_result))
        return false;
    registers.set(column::rsp, far);
    offset = static_cast<std::int64_t>(near_result);
    return evaluate(tables, expression, registers, memory, nullptr, far_result) && far_result - near_result == far;
}

bool is_saved_at(const frame_tables& tables, const register_rule& rule, how kind, unsigned number,
                 std::int64_t expected, bool expected_read) noexcept {
    std::int64_t offset;
    bool is_read;
    return rule.kind == kind && is_register_and_offset(tables, rule.value, number, offset, is_read) &&
           offset == expected && is_read == expected_read;
}

bool in_words(std::int64_t offset, std::uint32_t limit) noexcept {
    return offset > 0 && offset % 8 == 0 && offset / 8 <= std::int64_t{limit};
}

frame_rule compress(const frame_tables& tables, const frame_row& row, std::uintptr_t pc) noexcept {
    const register_rule& way_back = row.registers[column::return_address];
    const register_rule& fp = row.registers[column::rbp];
    if (way_back.kind == how::undefined)
        return frame_rule::outermost;
    if (row.is_signal)
        return is_saved_at(tables, row.cfa, how::expression, column::rsp, signal_offset::sp, true) &&
                       is_saved_at(tables, way_back, how::at_expression, column::rsp, signal_offset::pc, false) &&
                       is_saved_at(tables, fp, how::at_expression, column::rsp, signal_offset::fp, false)
                   ? frame_rule::signal_frame
                   : frame_rule::general;
    if (way_back.kind != how::at_offset || way_back.value != -8 || row.registers[column::rsp].kind != how::unspecified)
        return frame_rule::general;

    std::int64_t offset = row.cfa.value;
    unsigned base = row.cfa_register;
    if (row.cfa.kind == how::expression) {
        bool is_read;
        if (is_register_and_offset(tables, row.cfa.value, column::rbp, offset, is_read) && is_read &&
            is_saved_at(tables, fp, how::at_expression, column::rbp, 0, false) &&
            in_words(-offset, frame_rule::max_offset))
            return {frame_rule::from_fp_read, static_cast<std::uint32_t>(-offset / 8), 0};
        if (!offset_from_sp(tables, row.cfa.value, pc, offset))
            return frame_rule::general;
        base = column::rsp;
    }
    std::uint32_t saved = 0;
    if (fp.kind == how::at_offset && in_words(-std::int64_t{fp.value}, frame_rule::max_saved))
        saved = static_cast<std::uint32_t>(-std::int64_t{fp.value} / 8);
    else if (fp.kind != how::unspecified && fp.kind != how::same)
        return frame_rule::general;
    if ((base != column::rsp && base != column::rbp) || !in_words(offset, frame_rule::max_offset) ||
        (base == column::rsp && saved * 8 > offset))
        return frame_rule::general;
    return {base == column::rsp ? frame_rule::from_sp : frame_rule::from_fp, static_cast<std::uint32_t>(offset / 8),
            saved};
}

// Counts wrong guesses. Few of them are set right, or threads that call one function from here and there would take its
// entry from each other all the time.
[[gnu::tls_model("initial-exec")]] constinit thread_local unsigned wrong_guesses = 0;

// The code that a handler returns to, in programs without tables for it: mov $15, %rax; syscall.
bool is_return_from_signal(std::uintptr_t pc) noexcept {
    constexpr unsigned char code[] = {0x48, 0xc7, 0xc0, 0x0f, 0, 0, 0, 0x0f, 0x05};
    return is_readable(pc) && is_readable(pc + sizeof code - 1) &&
           std::memcmp(reinterpret_cast<const void*>(pc), code, sizeof code) == 0;
}

} // namespace

bool follows_call(std::uintptr_t pc) noexcept {
    constexpr unsigned longest = 7;
    // Read from the last byte down, as far as the memory is mapped.
    unsigned char code[longest]{};
    unsigned count = 0;
    for (; count < longest; ++count) {
        const std::uintptr_t address = pc - 1 - count;
        if ((count == 0 || address % page_size == page_size - 1) && !is_readable(address))
            break;
        code[longest - 1 - count] = *reinterpret_cast<const unsigned char*>(address);
    }
    if (count >= 5 && code[2] == 0xe8)
        return true;
    for (unsigned length = 2; length <= count; ++length) {
        const unsigned char* const at = code + longest - length;
        if (at[0] != 0xff || (at[1] >> 3 & 7) != 2)
            continue;
        const unsigned mode = at[1] >> 6;
        const unsigned place = at[1] & 7;
        unsigned needed = 2;
        if (mode != 3 && place == 4)
            needed += 1;
        if (mode == 1)
            needed += 1;
        else if (mode == 2 || (mode == 0 && (place == 5 || (place == 4 && length > 2 && (at[2] & 7) == 5))))
            needed += 4;
        if (needed == length)
            return true;
    }
    return false;
}

[[gnu::noinline]] frame_rule read_rule(std::uintptr_t pc) noexcept {
    const std::uint64_t state = module_state.load(std::memory_order_acquire);
    frame_rule rule = frame_rule::no_table;
    found_module module{};
    frame_row row;
    const bool is_code = find_module(pc, module);
    if (is_code && find_row(module.tables, pc, row))
        rule = compress(module.tables, row, pc);
    else if (is_return_from_signal(pc + 1))
        rule = frame_rule::signal_frame;
    else if (!is_code && !follows_call(pc + 1))
        rule = frame_rule::no_code;
    if (module.stays || state < one_change) {
        const std::uint64_t value = rule.bits() | (module.stays ? 0 : state << 32);
        rule_cache::entry& entry = rule_cache::place_of(pc);
        entry.rule.store(value, std::memory_order_relaxed);
        entry.check.store(rule_cache::check_of(pc, value), std::memory_order_relaxed);
    }
    return rule;
}

rule_place look_for_rule(rule_cache::entry* last, std::uintptr_t pc, std::uint64_t state) noexcept {
    rule_place result{&rule_cache::place_of(pc), frame_rule::no_table};
    if (last->caller.load(std::memory_order_relaxed) == 0 || ++wrong_guesses % 16 == 0)
        last->caller.store(static_cast<std::uint32_t>(result.entry - rule_cache::entries), std::memory_order_relaxed);
    if (!rule_cache::holds(*result.entry, pc, state, result.rule))
        result.rule = read_rule(pc);
    return result;
}

} // namespace qor::record
