// Inside the SIMD routines: the kernels of an instruction set, and the plan that assigns them to lengths.
//
// The entry points (routines.cpp) handle up to `small_limit` bytes themselves, in plain C++, because a second call
// would cost more than the work. For longer operations they use the plan: the kernel of the chosen set up to the length
// where cache effects dominate, and from there the routine that is fastest on this machine.
//
// Patterns: a fill repeats the eight bytes of `pattern`, in memory order, from the first byte of the destination.
#pragma once

#include "qor/system/Types.h"

#include <algorithm>

namespace qor::simd {

// The alignment for all sets: a cache line, which is also the size of the widest vector.
inline constexpr uint64 alignment = 64;
inline constexpr uint64 small_limit = 64;
inline constexpr uint64 stream_minimum = 256;
inline constexpr uint64 never = ~uint64{0};

using copy_kernel = void (*)(void* destination, const void* source, uint64 length) noexcept;
using fill_kernel = void (*)(void* destination, uint64 pattern, uint64 length) noexcept;

// Kernels accept any address and need more than small_limit bytes; streaming kernels need at least stream_minimum
// bytes.
struct instruction_set {
    const char* name;
    copy_kernel copy;
    fill_kernel fill;
    // These bypass the caches. A thread that sees a later store of the caller also sees all that they wrote. Null if
    // the set has no such kernel.
    copy_kernel stream_copy;
    copy_kernel stream_pages; // as stream_copy, with several pages of memory open at once
    fill_kernel stream_fill;
};

// The lengths from which another routine replaces the set's ordinary kernel, and these routines.
struct limits {
    // The processor's own instructions for blocks. Null if they are not used for any length.
    copy_kernel string_copy = nullptr;
    fill_kernel string_fill = nullptr;
    uint64 string_copy_from = never, string_fill_from = never;
    // If the destination lies between 1 and `string_gap` bytes after the source, modulo 4096, string_copy falls back to
    // single bytes and is ten times slower than anything else.
    uint64 string_gap = 0;
    // Past the caches. From the lengths of the second line on, only if is_cold says so of the destination.
    copy_kernel stream_copy = nullptr;
    fill_kernel stream_fill = nullptr;
    uint64 stream_copy_from = never, stream_fill_from = never;
    uint64 cold_copy_from = never, cold_fill_from = never;
    bool (*is_cold)(void* block, uint64 length) noexcept = nullptr;
};

struct plan {
    constexpr plan(const instruction_set& chosen, const limits& from) noexcept
        : copy(chosen.copy), fill(chosen.fill),
          large_copy_from(std::min({from.string_copy_from, from.stream_copy_from, from.cold_copy_from})),
          large_fill_from(std::min({from.string_fill_from, from.stream_fill_from, from.cold_fill_from})), set(&chosen),
          large(from) {}

    // The fields that an entry point reads first; they lie side by side.
    copy_kernel copy;
    fill_kernel fill;
    uint64 large_copy_from, large_fill_from;
    const instruction_set* set;
    limits large;
};

extern const instruction_set plain;

// The sets that this processor and this operating system support, the best first. `plain` is always the last one.
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

// Returns the set of this name; if it is not available here, the next best one. Returns the best set of all if the name
// is unknown.
const instruction_set& choose_set(const char* name) noexcept;

// Makes the entry points use this plan, which must outlive them. If nobody calls this, the first use of an entry point
// installs the plan for choose_set(QOR_SIMD) and read_cache_sizes().
void install(const plan& chosen) noexcept;
const plan& plan_in_use() noexcept;

// The sizes as the operating system reports them. CPUID alone would report the host's cache, not this virtual machine's
// share.
cache_sizes read_cache_sizes() noexcept;

} // namespace qor::simd
