// The entry points, and what they do with large blocks.
#include "glue/own_table.h"
#include "qor/qor.h"
#include "simd/simd.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>

static_assert(offsetof(qor::glue::binding_table, simd_memcpy_safe) - offsetof(qor::glue::binding_table, simd_zero) ==
              offsetof(qor::simd::entry_points, memcpy_safe));

namespace {

using qor::simd::instruction_set;
using qor::simd::limits;
using qor::simd::plan;

// Null before the first call, and before the first large one.
constinit std::atomic<const instruction_set*> s_set{nullptr};
constinit std::atomic<const plan*> s_plan{nullptr};

void use(const instruction_set& set) noexcept {
    s_set.store(&set, std::memory_order_release);
    qor::glue::replace_rows(&qor::glue::own_table.simd_zero, &set.rows, sizeof set.rows);
}

[[gnu::noinline]] const instruction_set& first_use() noexcept {
    static const instruction_set& chosen = []() -> const instruction_set& {
        const instruction_set& set = qor::simd::choose_set(std::getenv("QOR_SIMD"));
        use(set);
        return set;
    }();
    return chosen;
}

// The entry points of the set in use. Clients come here before their table has those.
const qor::simd::entry_points& rows() noexcept {
    const instruction_set* const set = s_set.load(std::memory_order_acquire);
    return (set != nullptr ? *set : first_use()).rows;
}

const plan& first_large_use() noexcept {
    static const plan made = [] {
        const instruction_set& set = *s_set.load(std::memory_order_acquire);
        return plan{&set, qor::simd::find_limits(set, qor::simd::read_cache_sizes())};
    }();
    qor::simd::install(made);
    return made;
}

bool is_in_gap(const limits& large, const void* destination, const void* source) noexcept {
    const auto ahead = reinterpret_cast<std::uintptr_t>(destination) - reinterpret_cast<std::uintptr_t>(source);
    return (ahead - 1) % 4096 < large.string_gap;
}

} // namespace

constinit std::atomic<uint64> qor::simd::large_copy_from{least_large}, qor::simd::large_fill_from{least_large};

const plan& qor::simd::plan_in_use() noexcept {
    const plan* const installed = s_plan.load(std::memory_order_acquire);
    return installed != nullptr ? *installed : first_large_use();
}

void qor::simd::install(const plan& chosen) noexcept {
    const limits& large = chosen.large;
    // A thread that sees the lengths sees the plan.
    s_plan.store(&chosen, std::memory_order_release);
    large_copy_from.store(std::min({large.string_copy_from, large.stream_copy_from, large.cold_copy_from}),
                          std::memory_order_release);
    large_fill_from.store(std::min({large.string_fill_from, large.stream_fill_from, large.cold_fill_from}),
                          std::memory_order_release);
    if (chosen.set != s_set.load(std::memory_order_acquire))
        use(*chosen.set);
}

void qor::simd::copy_large(void* destination, const void* source, uint64 length) noexcept {
    const plan& by = plan_in_use();
    const limits& large = by.large;
    if (length >= large.stream_copy_from || (length >= large.cold_copy_from && large.is_cold(destination, length)))
        large.stream_copy(destination, source, length);
    else if (length < large.string_copy_from || is_in_gap(large, destination, source))
        by.set->copy_loop(destination, source, length);
    else
        large.string_copy(destination, source, length);
}

void qor::simd::fill_large(void* destination, uint64 pattern, uint64 length) noexcept {
    const plan& by = plan_in_use();
    const limits& large = by.large;
    if (length >= large.stream_fill_from || (length >= large.cold_fill_from && large.is_cold(destination, length)))
        large.stream_fill(destination, pattern, length);
    else if (length < large.string_fill_from)
        by.set->fill_loop(destination, pattern, length);
    else
        large.string_fill(destination, pattern, length);
}

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

uint64 qor::glue::qor_get_simd_alignment() noexcept { return qor::simd::alignment; }

void qor::glue::simd_zero(void* dst, uint64 length) noexcept { rows().zero(dst, length); }

void qor::glue::simd_memset_u8(void* dst, uint8 value, uint64 length) noexcept { rows().memset_u8(dst, value, length); }

void qor::glue::simd_memset_u16(void* dst, uint16 value, uint64 length) noexcept {
    rows().memset_u16(dst, value, length);
}

void qor::glue::simd_memset_u32(void* dst, uint32 value, uint64 length) noexcept {
    rows().memset_u32(dst, value, length);
}

void qor::glue::simd_memset_u64(void* dst, uint64 value, uint64 length) noexcept {
    rows().memset_u64(dst, value, length);
}

void qor::glue::simd_memcpy_aligned(void* dst, const void* src, uint64 length) noexcept {
    rows().memcpy_aligned(dst, src, length);
}

void qor::glue::simd_memcpy_safe(void* dst, const void* src, uint64 length) noexcept {
    rows().memcpy_safe(dst, src, length);
}
