#include "unwind.h"
#include "unwind_rules.h"
#include "unwind_stack.h"

namespace qor::record {
namespace {

std::uintptr_t word_at(std::uintptr_t address) noexcept { return *reinterpret_cast<const std::uintptr_t*>(address); }

// The stack of the walk; memory elsewhere is read only if the kernel lets it.
struct stack_reader : memory_reader {
    stack_reader() noexcept : memory_reader{&read_somewhere} {}

    stack_view view;

private:
    static bool read_somewhere(memory_reader& self, std::uintptr_t address, std::uintptr_t& value) noexcept {
        if (address % sizeof address != 0 ||
            !(static_cast<stack_reader&>(self).view.reaches(address) || is_readable(address)))
            return false;
        value = word_at(address);
        return true;
    }
};

// One way down a stack. `lookup` is where the rule for a frame is found: within the call, not behind it.
struct frame_position {
    std::uintptr_t pc;
    std::uintptr_t sp;
    std::uintptr_t fp;
    std::uintptr_t lookup;
};

// The begin of a function may follow a call, too, if the function before ends with a call that does not return.
bool is_function(std::uintptr_t pc) noexcept {
    found_module module;
    frame_row row;
    return find_module(pc, module) && find_row(module.tables, pc, row) && row.function == pc;
}

// Without a table, the frame pointer is followed, if it leads up on the same stack to what a call has left. `state` as
// in rule_of: while modules come and go, only those that stay are looked at.
bool follow_frame_pointer(frame_position& at, stack_view& view, std::uint64_t state) noexcept {
    if (at.fp < at.sp || at.fp % sizeof at.fp != 0 || !view.reaches(at.fp) || !view.reaches(at.fp + 8))
        return false;
    const std::uintptr_t pc = word_at(at.fp + 8);
    found_module module;
    if (state >= one_change && find_module(pc - 1, module) && !module.stays)
        return false;
    if (pc < page_size || !follows_call(pc) || is_function(pc))
        return false;
    at = {pc, at.fp + 16, word_at(at.fp), pc - 1};
    return true;
}

bool leave_signal_frame(frame_position& at, stack_view& view) noexcept {
    if (!view.reaches(at.sp + signal_offset::fp) || !view.reaches(at.sp + signal_offset::pc))
        return false;
    const std::uintptr_t pc = word_at(at.sp + signal_offset::pc);
    at = {pc, word_at(at.sp + signal_offset::sp), word_at(at.sp + signal_offset::fp), pc};
    if (at.sp % sizeof at.sp != 0)
        return false;
    if (!view.covers(at.sp))
        view.enter(at.sp);
    return pc >= page_size;
}

enum class general_step { done, end, no_table, needs_registers };

// A rule that is too long for the cache.
general_step take_general_step(register_set& registers, std::uintptr_t& lookup, stack_reader& reader) noexcept {
    found_module module;
    frame_row row;
    if (!find_module(lookup, module) || !find_row(module.tables, lookup, row))
        return general_step::no_table;
    const std::uintptr_t sp = registers.values[column::rsp];
    if (!step(module.tables, row, registers, reader))
        return general_step::needs_registers;
    const std::uintptr_t new_sp = registers.values[column::rsp];
    if (!registers.knows(column::return_address) || !registers.knows(column::rsp) || new_sp == sp ||
        new_sp % sizeof new_sp != 0)
        return general_step::end;
    const std::uintptr_t pc = registers.values[column::return_address];
    lookup = row.is_signal ? pc : pc - 1;
    if (!reader.view.covers(new_sp))
        reader.view.enter(new_sp);
    return pc < page_size ? general_step::end : general_step::done;
}

// The registers here, as far as a function keeps them.
[[gnu::always_inline]] inline void capture_registers(register_set& result) noexcept {
    __asm__ volatile("movq %%rbx, 24(%0)\n\t"
                     "movq %%rbp, 48(%0)\n\t"
                     "movq %%rsp, 56(%0)\n\t"
                     "movq %%r12, 96(%0)\n\t"
                     "movq %%r13, 104(%0)\n\t"
                     "movq %%r14, 112(%0)\n\t"
                     "movq %%r15, 120(%0)\n\t"
                     "leaq 1f(%%rip), %%rax\n"
                     "1:\n\t"
                     "movq %%rax, 128(%0)"
                     :
                     : "r"(result.values)
                     : "rax", "memory");
    result.known =
        1u << column::rbx | 1u << column::rbp | 1u << column::rsp | 0xfu << column::r12 | 1u << column::return_address;
}

// With all registers that calls keep, from here to the context and on: some rules need more than those in the context.
[[gnu::noinline]] unsigned unwind_with_all_registers(const machine_context& context, std::uintptr_t* frames,
                                                     unsigned depth, unsigned count) noexcept {
    register_set registers{};
    capture_registers(registers);
    stack_reader reader;
    reader.view.enter_running(registers.values[column::rsp]);
    std::uintptr_t lookup = registers.values[column::return_address];
    const std::uint64_t state = module_state.load(std::memory_order_acquire);
    const auto is_at_context = [&] {
        return registers.values[column::rsp] == context.sp && registers.values[column::return_address] == context.pc;
    };
    for (unsigned steps = 0; !is_at_context(); ++steps)
        if (steps == 16 || registers.values[column::rsp] > context.sp ||
            take_general_step(registers, lookup, reader) != general_step::done)
            return count;

    for (unsigned n = 0;;) {
        frames[n++] = registers.values[column::return_address];
        if (n == depth)
            return n;
        switch (take_general_step(registers, lookup, reader)) {
        case general_step::done:
            continue;
        case general_step::no_table:
            break;
        default:
            return n;
        }
        frame_position at{frames[n - 1], registers.values[column::rsp], registers.values[column::rbp], lookup};
        const frame_rule rule = rule_of(lookup, state);
        if (rule == frame_rule::no_code && lookup != at.pc && n > 1)
            return n - 1;
        if (rule == frame_rule::signal_frame
                ? !leave_signal_frame(at, reader.view)
                : !registers.knows(column::rbp) || !follow_frame_pointer(at, reader.view, state))
            return n;
        registers.known = 0;
        registers.set(column::rsp, at.sp);
        registers.set(column::rbp, at.fp);
        registers.set(column::return_address, at.pc);
        lookup = at.lookup;
    }
}

// Where the caller's stack begins, and where its frame pointer was saved; the same: it was not.
struct frame_place {
    std::uintptr_t cfa;
    std::uintptr_t saved;
};

enum class unlikely {
    placed,          // `place` is filled in
    left,            // `at` is the caller
    foreign,         // `at` is no frame at all
    needs_registers, // not even the context suffices
    end
};

// All rules but the usual one, that one where a stack ends or is not known to go on.
unlikely leave_unlikely(frame_rule rule, frame_position& at, frame_place& place, std::uint64_t state,
                        stack_reader& reader) noexcept {
    stack_view& view = reader.view;
    switch (rule.kind()) {
    case frame_rule::from_sp:
        break;
    case frame_rule::from_fp:
        place.cfa = at.fp + rule.offset();
        place.saved = place.cfa - rule.saved();
        break;
    case frame_rule::from_fp_read:
        if (at.fp % sizeof at.fp != 0 || !view.reaches(at.fp - rule.offset()))
            return unlikely::end;
        place = {word_at(at.fp - rule.offset()), at.fp};
        break;
    case frame_rule::special:
        switch (rule.which()) {
        case frame_rule::outermost:
            return unlikely::end;
        case frame_rule::signal_frame:
            return leave_signal_frame(at, view) ? unlikely::left : unlikely::end;
        case frame_rule::no_code:
            // No guess is possible about interrupted code.
            if (at.lookup != at.pc)
                return unlikely::foreign;
            [[fallthrough]];
        case frame_rule::no_table:
            return follow_frame_pointer(at, view, state) ? unlikely::left : unlikely::end;
        case frame_rule::general:
            break;
        }
        register_set registers{};
        registers.set(column::rsp, at.sp);
        registers.set(column::rbp, at.fp);
        registers.set(column::return_address, at.pc);
        const general_step result = take_general_step(registers, at.lookup, reader);
        if (result == general_step::needs_registers || !registers.knows(column::rbp))
            return unlikely::needs_registers;
        if (result != general_step::done)
            return unlikely::end;
        at = {registers.values[column::return_address], registers.values[column::rsp], registers.values[column::rbp],
              at.lookup};
        return unlikely::left;
    }

    if (place.cfa % sizeof place.cfa != 0)
        return unlikely::end;
    const std::uintptr_t back = place.cfa - 8;
    const std::uintptr_t first = place.saved < back ? place.saved : back;
    if (first < at.sp || !view.reaches(back) || !view.covers(first)) {
        // Not up, or not on the same stack: a function that changes stacks keeps the old one in its frame pointer.
        if (rule.kind() == frame_rule::from_sp)
            return unlikely::end;
        view.enter(first);
        if (!view.reaches(back) || !view.covers(first))
            return unlikely::end;
    }
    return unlikely::placed;
}

} // namespace

void prepare_unwinder() noexcept {
    static constinit bool is_prepared = false;
    // A forked child has the modules of its parent, but not the threads that were changing them.
    module_state.fetch_and(one_change - 1);
    if (is_prepared)
        return;
    is_prepared = true;
    this_is_the_main_thread();
    read_first_modules();
}

unsigned unwind(const machine_context& context, std::uintptr_t* frames, unsigned depth) noexcept {
    if (depth == 0 || context.pc < page_size || context.sp % sizeof context.sp != 0)
        return 0;
    const std::uint64_t state = module_state.load(std::memory_order_acquire);
    stack_reader reader;
    reader.view.enter_running(context.sp);
    std::uintptr_t pc = context.pc;
    std::uintptr_t sp = context.sp;
    std::uintptr_t fp = context.fp;
    std::uintptr_t lookup = pc - 1;
    std::uintptr_t low = reader.view.low();
    std::uintptr_t span = reader.view.span();
    rule_place place{rule_cache::entries, frame_rule::no_table};
    for (unsigned n = 0;;) {
        // In a register of the processor each: the compiler would join them to vectors, for the sake of the rare cases.
        __asm__("" : "+r"(pc), "+r"(sp), "+r"(fp));
        frames[n++] = pc;
        if (n == depth)
            return n;
        place = next_rule(place.entry, lookup, state);
        const frame_rule rule = place.rule;
        std::uintptr_t cfa = (rule.kind() == frame_rule::from_sp ? sp : fp) + rule.offset();
        std::uintptr_t saved = cfa - rule.saved();
        // The rule from fp needs it to lead up.
        const bool is_usual = rule.kind() == frame_rule::from_sp ||
                              (rule.kind() == frame_rule::from_fp && fp >= sp && fp % sizeof fp == 0);
        if (!is_usual || cfa - 8 - low > span || saved - low > span + 8) [[unlikely]] {
            frame_position at{pc, sp, fp, lookup};
            frame_place where{cfa, saved};
            const unlikely result = leave_unlikely(rule, at, where, state, reader);
            if (result == unlikely::needs_registers)
                return unwind_with_all_registers(context, frames, depth, n);
            // A called function always has a caller.
            if (result == unlikely::foreign)
                return n > 1 ? n - 1 : n;
            if (result == unlikely::end)
                return n;
            low = reader.view.low();
            span = reader.view.span();
            if (result == unlikely::left) {
                pc = at.pc;
                sp = at.sp;
                fp = at.fp;
                lookup = at.lookup;
                continue;
            }
            cfa = where.cfa;
            saved = where.saved;
        }
        if (saved != cfa)
            fp = word_at(saved);
        pc = word_at(cfa - 8);
        sp = cfa;
        lookup = pc - 1;
        if (pc < page_size)
            return n;
    }
}

} // namespace qor::record
