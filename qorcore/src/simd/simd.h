// Inside the SIMD routines: what an instruction set brings, and the plan that says which of it serves which
// length.
//
// The entries (routines.cpp) do the first `small_limit` bytes themselves, in plain C++, because a second call
// would cost more than the work. Above it they look into the plan: the kernel of the chosen set up to a
// length where the caches change the game, from there what pays on this machine.
//
// Patterns: a fill repeats the eight bytes of `pattern`, in memory order, from the first byte of the
// destination on.
#pragma once

#include "qor/system/Types.h"

namespace qor::simd {

// What every set aligns to: a cache line, which is also the widest vector.
inline constexpr uint64 alignment = 64;
inline constexpr uint64 small_limit = 64;
inline constexpr uint64 stream_minimum = 256;
inline constexpr uint64 never = ~uint64{0};

using copy_kernel = void (*)(void* destination, const void* source, uint64 length) noexcept;
using fill_kernel = void (*)(void* destination, uint64 pattern, uint64 length) noexcept;

// Kernels take any addresses and more than small_limit bytes, those that stream at least stream_minimum.
struct instruction_set {
    const char* name;
    copy_kernel copy;
    fill_kernel fill;
    // These write past the caches, and what they wrote is visible to whoever sees what the caller writes
    // next. Null: the set has none.
    copy_kernel stream_copy;
    fill_kernel stream_fill;
};

// From which lengths on something other than the set's ordinary kernel serves, and what.
struct limits {
    // The processor's own string instructions. Null: they serve no length.
    copy_kernel string_copy = nullptr;
    fill_kernel string_fill = nullptr;
    uint64 string_copy_from = never, string_fill_from = never;
    // Where the destination lies 1 to so many bytes behind the source, modulo 4096, string_copy falls back to
    // single bytes: ten times slower than anything else.
    uint64 string_gap = 0;
    uint64 stream_copy_from = never, stream_fill_from = never;
};

struct plan {
    constexpr plan(const instruction_set& chosen, const limits& from) noexcept
        : copy(chosen.copy), fill(chosen.fill),
          large_copy_from(from.string_copy_from < from.stream_copy_from ? from.string_copy_from
                                                                        : from.stream_copy_from),
          large_fill_from(from.string_fill_from < from.stream_fill_from ? from.string_fill_from
                                                                        : from.stream_fill_from),
          set(&chosen), large(from) {}

    // What an entry looks at first, side by side.
    copy_kernel copy;
    fill_kernel fill;
    uint64 large_copy_from, large_fill_from;
    const instruction_set* set;
    limits large;
};

extern const instruction_set plain;

// The sets that this processor and this operating system have, the best first; `plain` is always the last.
struct set_list {
    const instruction_set* sets[4];
    uint32 count;
};
set_list available_sets() noexcept;

struct cache_sizes {
    uint64 first_data, second, third; // bytes; 0: unknown
};

// The limits of a set on this machine.
limits find_limits(const instruction_set& set, const cache_sizes& caches) noexcept;

// The set of this name, or the best one below it that there is here; the best of all where there is no such
// name.
const instruction_set& choose_set(const char* name) noexcept;

// From now on the entries work after this plan, which must outlive them. Without a call of it, the first use
// of an entry installs the plan for choose_set(QOR_SIMD) and read_cache_sizes().
void install(const plan& chosen) noexcept;
const plan& plan_in_use() noexcept;

// As the operating system tells them: CPUID alone speaks of the host's cache, not of this machine's share.
cache_sizes read_cache_sizes() noexcept;

} // namespace qor::simd
