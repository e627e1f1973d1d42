// Inside the SIMD routines: the kernels of an instruction set, and the plan that assigns them to lengths.
//
// The entry points (routines.cpp) jump to the kernels of the chosen set, which take any length. From the length on
// where the caches decide, those turn to copy_large and fill_large, which do what is fastest on this machine.
//
// Patterns: a fill repeats the eight bytes of `pattern`, in memory order, from the first byte of the destination.
#pragma once

#include "qor/system/Types.h"

#include <atomic>

namespace qor::simd {

// The alignment for all sets: a cache line, which is also the size of the widest vector.
inline constexpr uint64 alignment = 64;
inline constexpr uint64 small_limit = 64;
inline constexpr uint64 stream_minimum = 256;
inline constexpr uint64 never = ~uint64{0};

using copy_kernel = void (*)(void* destination, const void* source, uint64 length) noexcept;
using fill_kernel = void (*)(void* destination, uint64 pattern, uint64 length) noexcept;

// The rows of the table of libqor, in their order there.
struct entry_points {
    void (*zero)(void* dst, uint64 length) noexcept;
    void (*memset_u8)(void* dst, uint8 value, uint64 length) noexcept;
    void (*memset_u16)(void* dst, uint16 value, uint64 length) noexcept;
    void (*memset_u32)(void* dst, uint32 value, uint64 length) noexcept;
    void (*memset_u64)(void* dst, uint64 value, uint64 length) noexcept;
    copy_kernel memcpy_aligned, memcpy_safe;
};

// All accept any address. Streaming kernels need at least stream_minimum bytes.
struct instruction_set {
    const char* name;
    entry_points rows;
    // Any length. The rows are the same up to large_copy_from and large_fill_from.
    copy_kernel copy_loop;
    fill_kernel fill_loop;
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
    const instruction_set* set;
    limits large;
};

// What the kernels ask in long operations. The lengths are those of the plan in use; before there is one, least_large.
inline constexpr uint64 least_large = 4 << 10;
extern constinit std::atomic<uint64> large_copy_from, large_fill_from;
void copy_large(void* destination, const void* source, uint64 length) noexcept;
void fill_large(void* destination, uint64 pattern, uint64 length) noexcept;

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

// Makes the entry points use this plan, which must outlive them. If nobody calls this, the first call installs
// choose_set(QOR_SIMD), and the first large one its limits for read_cache_sizes().
void install(const plan& chosen) noexcept;
const plan& plan_in_use() noexcept;

// The sizes as the operating system reports them. CPUID alone would report the host's cache, not this virtual machine's
// share.
cache_sizes read_cache_sizes() noexcept;

} // namespace qor::simd
