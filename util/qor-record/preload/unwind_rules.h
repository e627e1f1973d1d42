// How the caller of a frame is found on x86-64, in 32 bits, and the cache from program counters to that.
#pragma once

#include "unwind_modules.h"

#include <atomic>
#include <cstdint>

namespace qor::record {

// The canonical frame address (CFA) is where the stack pointer was before the call: the return address lies below it.
class frame_rule {
public:
    enum base : std::uint32_t {
        from_sp,      // CFA = sp + offset
        from_fp,      // CFA = fp + offset
        from_fp_read, // CFA = what stands at fp - offset; fp was saved at fp: functions that align their stack
        special       // the offset says which
    };
    enum special_case : std::uint32_t {
        no_table,     // no table tells
        no_code,      // nor is it in a module, and no call ends there: no return address
        outermost,    // there is no caller
        signal_frame, // the kernel's, with the registers of the interrupted code
        general       // the table tells, but it does not fit in here
    };
    static constexpr std::uint32_t max_offset = (1u << 18) - 1; // all in words
    static constexpr std::uint32_t max_saved = (1u << 12) - 1;

    constexpr frame_rule(base kind, std::uint32_t offset, std::uint32_t saved) noexcept
        : m_bits(kind | saved << 2 | offset << 14) {}
    constexpr frame_rule(special_case kind) noexcept : frame_rule(special, kind, 0) {}
    constexpr explicit frame_rule(std::uint32_t bits) noexcept : m_bits(bits) {}

    constexpr std::uint32_t bits() const noexcept { return m_bits; }
    constexpr base kind() const noexcept { return static_cast<base>(m_bits & 3); }
    constexpr special_case which() const noexcept { return static_cast<special_case>(m_bits >> 14); }
    constexpr std::uintptr_t offset() const noexcept { return std::uintptr_t{m_bits >> 14} * 8; }
    // How far below the CFA fp was saved; 0: it is unchanged.
    constexpr std::uintptr_t saved() const noexcept { return std::uintptr_t{m_bits >> 2 & max_saved} * 8; }

    friend constexpr bool operator==(frame_rule, frame_rule) noexcept = default;

private:
    std::uint32_t m_bits;
};

// The kernel's frame of a signal handler, seen from the stack pointer behind its return address.
namespace signal_offset {
constexpr std::intptr_t fp = 120, sp = 160, pc = 168;
}

// Whether a call ends where code goes on at `pc`.
bool follows_call(std::uintptr_t pc) noexcept;

// Reads the rule for a program counter from the tables of its module, and keeps it.
frame_rule read_rule(std::uintptr_t pc) noexcept;

namespace rule_cache {

// Threads write the parts of an entry at once, in any order: `check` belongs to `rule`, or the entry counts for
// nothing.
struct alignas(32) entry {
    std::atomic<std::uint64_t> check;
    std::atomic<std::uint64_t> rule;   // below; above it the number of module_state, 0 where the module stays
    std::atomic<std::uint32_t> caller; // the place of the entry that was needed next: a guess
};

constexpr unsigned index_bits = 16;
[[gnu::visibility("hidden")]] extern entry entries[1u << index_bits];

inline entry& place_of(std::uintptr_t pc) noexcept { return entries[(pc * 0x9e3779b97f4a7c15u) >> (64 - index_bits)]; }

constexpr std::uint64_t check_of(std::uintptr_t pc, std::uint64_t rule) noexcept {
    // Spread over the upper bits, which are 0 in every program counter.
    return pc ^ (rule + 1) * 0xd6e8feb86659fd93u;
}

// `state`: the value of module_state.
inline bool holds(const entry& place, std::uintptr_t pc, std::uint64_t state, frame_rule& rule) noexcept {
    const std::uint64_t value = place.rule.load(std::memory_order_relaxed);
    const std::uint64_t number = value >> 32;
    rule = frame_rule(static_cast<std::uint32_t>(value));
    return place.check.load(std::memory_order_relaxed) == check_of(pc, value) && (number == 0 || number == state);
}

} // namespace rule_cache

inline frame_rule rule_of(std::uintptr_t pc, std::uint64_t state) noexcept {
    frame_rule rule = frame_rule::no_table;
    return rule_cache::holds(rule_cache::place_of(pc), pc, state, rule) ? rule : read_rule(pc);
}

// An entry and what was in it.
struct rule_place {
    rule_cache::entry* entry;
    frame_rule rule;
};

// The rule by the whole way, after `last`.
rule_place look_for_rule(rule_cache::entry* last, std::uintptr_t pc, std::uint64_t state) noexcept;

// The rule of a frame after that of `last`, which it called or which interrupted it. Where `last` was called from
// before is tried first: then the processor need not wait for the return address to find the next rule.
[[gnu::always_inline]] inline rule_place next_rule(rule_cache::entry* last, std::uintptr_t pc,
                                                   std::uint64_t state) noexcept {
    rule_place result{&rule_cache::entries[last->caller.load(std::memory_order_relaxed)], frame_rule::no_table};
    return rule_cache::holds(*result.entry, pc, state, result.rule) ? result : look_for_rule(last, pc, state);
}

} // namespace qor::record
