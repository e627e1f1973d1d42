// The entry points: they handle short lengths themselves and everything else according to the plan.
#include "qor/qor.h"
#include "simd/pattern.h"
#include "simd/simd.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace {

using qor::simd::limits;
using qor::simd::plan;
using qor::simd::small_limit;

// ---- up to small_limit bytes: pieces from both ends, which may overlap in the middle
struct piece {
    uint64 words[2];
};

template <class TYPE>
TYPE get(const char* from) noexcept {
    TYPE value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

template <class TYPE>
void put(char* to, const TYPE& value) noexcept {
    std::memcpy(to, &value, sizeof value);
}

// Two pieces cover any length from one piece to two.
template <class TYPE>
void copy_ends(char* to, const char* from, uint64 length) noexcept {
    const TYPE first = get<TYPE>(from);
    const TYPE last = get<TYPE>(from + length - sizeof(TYPE));
    put(to, first);
    put(to + length - sizeof(TYPE), last);
}

// The hints control the code layout: a taken jump costs about one of eight cycles.
[[gnu::always_inline]] inline void copy_small(char* to, const char* from, uint64 length) noexcept {
    if (length >= sizeof(piece)) [[likely]] {
        if (length <= 2 * sizeof(piece)) [[likely]]
            return copy_ends<piece>(to, from, length);
        copy_ends<piece>(to, from, 2 * sizeof(piece));
        const uint64 rest = length - 2 * sizeof(piece);
        copy_ends<piece>(to + rest, from + rest, 2 * sizeof(piece));
    } else if (length >= 8) [[likely]] {
        copy_ends<uint64>(to, from, length);
    } else if (length >= 4) {
        copy_ends<uint32>(to, from, length);
    } else if (length >= 2) {
        copy_ends<uint16>(to, from, length);
    } else if (length != 0) {
        *to = *from;
    }
}

// Stores the beginning of the pattern at the front, and its continuation at the end.
template <class TYPE>
void fill_ends(char* to, uint64 pattern, uint64 length) noexcept {
    const uint64 end = go_on(pattern, length - sizeof(TYPE));
    std::memcpy(to, &pattern, sizeof(TYPE));
    std::memcpy(to + length - sizeof(TYPE), &end, sizeof(TYPE));
}

[[gnu::always_inline]] inline void fill_small(char* to, uint64 pattern, uint64 length) noexcept {
    if (length >= sizeof(piece)) {
        const piece begin{{pattern, pattern}};
        const uint64 phase = go_on(pattern, length);
        const piece end{{phase, phase}};
        char* const last = to + length - sizeof(piece);
        if (length > 2 * sizeof(piece))
            put(to + sizeof(piece), begin), put(last - sizeof(piece), end);
        put(to, begin), put(last, end);
    } else if (length >= 8) {
        fill_ends<uint64>(to, pattern, length);
    } else if (length >= 4) {
        fill_ends<uint32>(to, pattern, length);
    } else if (length >= 2) {
        fill_ends<uint16>(to, pattern, length);
    } else if (length != 0) {
        std::memcpy(to, &pattern, 1);
    }
}

// ---- longer: the first call finds out the features of this machine
void resolve() noexcept {
    static const qor::simd::instruction_set& set = qor::simd::choose_set(std::getenv("QOR_SIMD"));
    static const plan made(set, qor::simd::find_limits(set, qor::simd::read_cache_sizes()));
    qor::simd::install(made);
}

void resolve_and_copy(void* destination, const void* source, uint64 length) noexcept {
    resolve();
    qor::glue::simd_memcpy_safe(destination, source, length);
}

void resolve_and_fill(void* destination, uint64 pattern, uint64 length) noexcept {
    resolve();
    qor::glue::simd_memset_u64(destination, pattern, length);
}

constexpr qor::simd::instruction_set unresolved{"", resolve_and_copy, resolve_and_fill, nullptr, nullptr, nullptr};
constinit const plan no_plan(unresolved, {});
constinit std::atomic<const plan*> current{&no_plan};

bool is_in_gap(const plan& by, const void* destination, const void* source) noexcept {
    const auto ahead = reinterpret_cast<std::uintptr_t>(destination) - reinterpret_cast<std::uintptr_t>(source);
    return (ahead - 1) % 4096 < by.large.string_gap;
}

[[gnu::noinline]] void copy_large(const plan& by, void* destination, const void* source, uint64 length) noexcept {
    const limits& large = by.large;
    if (length >= large.stream_copy_from || (length >= large.cold_copy_from && large.is_cold(destination, length)))
        large.stream_copy(destination, source, length);
    else if (length < large.string_copy_from || is_in_gap(by, destination, source))
        by.copy(destination, source, length);
    else
        large.string_copy(destination, source, length);
}

[[gnu::noinline]] void fill_large(const plan& by, void* destination, uint64 pattern, uint64 length) noexcept {
    const limits& large = by.large;
    if (length >= large.stream_fill_from || (length >= large.cold_fill_from && large.is_cold(destination, length)))
        large.stream_fill(destination, pattern, length);
    else if (length < large.string_fill_from)
        by.fill(destination, pattern, length);
    else
        large.string_fill(destination, pattern, length);
}

inline void copy(void* destination, const void* source, uint64 length) noexcept {
    if (length <= small_limit) [[unlikely]]
        return copy_small(static_cast<char*>(destination), static_cast<const char*>(source), length);
    const plan& by = *current.load(std::memory_order_acquire);
    if (length < by.large_copy_from) [[likely]]
        return by.copy(destination, source, length);
    copy_large(by, destination, source, length);
}

inline void fill(void* destination, uint64 pattern, uint64 length) noexcept {
    if (length <= small_limit)
        return fill_small(static_cast<char*>(destination), pattern, length);
    const plan& by = *current.load(std::memory_order_acquire);
    if (length < by.large_fill_from) [[likely]]
        return by.fill(destination, pattern, length);
    fill_large(by, destination, pattern, length);
}

} // namespace

const qor::simd::instruction_set& qor::simd::choose_set(const char* name) noexcept {
    const set_list here = available_sets();
    if (name == nullptr)
        return *here.sets[0];
    // The names of all sets, the best first: if a set is not available here, the next one takes its place.
    constexpr const char* names[] = {"avx512", "avx2", "sse2", "neon", "plain"};
    const auto wanted = std::ranges::find_if(names, [&](const char* one) { return std::strcmp(one, name) == 0; });
    for (auto one = wanted; one != std::end(names); ++one)
        for (uint32 i = 0; i < here.count; ++i)
            if (std::strcmp(here.sets[i]->name, *one) == 0)
                return *here.sets[i];
    return *here.sets[0];
}

void qor::simd::install(const plan& chosen) noexcept { current.store(&chosen, std::memory_order_release); }

const plan& qor::simd::plan_in_use() noexcept { return *current.load(std::memory_order_acquire); }

uint64 qor::glue::qor_get_simd_alignment() noexcept { return qor::simd::alignment; }

void qor::glue::simd_zero(void* dst, uint64 length) noexcept { fill(dst, 0, length); }

void qor::glue::simd_memset_u8(void* dst, uint8 value, uint64 length) noexcept {
    fill(dst, value * uint64{0x0101010101010101}, length);
}

void qor::glue::simd_memset_u16(void* dst, uint16 value, uint64 length) noexcept {
    fill(dst, value * uint64{0x0001000100010001}, length);
}

void qor::glue::simd_memset_u32(void* dst, uint32 value, uint64 length) noexcept {
    fill(dst, value * uint64{0x0000000100000001}, length);
}

void qor::glue::simd_memset_u64(void* dst, uint64 value, uint64 length) noexcept { fill(dst, value, length); }

// Alignment would save a single store. That does not justify a second set of kernels, which would fault on misaligned
// addresses.
void qor::glue::simd_memcpy_aligned(void* dst, const void* src, uint64 length) noexcept { copy(dst, src, length); }

void qor::glue::simd_memcpy_safe(void* dst, const void* src, uint64 length) noexcept { copy(dst, src, length); }
