// Selects the routine for each length on AArch64.
#include "simd/sets_arm64.h"

qor::simd::set_list qor::simd::available_sets() noexcept { return {{&neon, &plain}, 2}; }

qor::simd::limits qor::simd::find_limits(const instruction_set& set, const cache_sizes& caches) noexcept {
    limits found;
    if (set.stream_copy == nullptr)
        return found;
    found.string_fill = fill_by_blocks;
    found.string_fill_from = zero_minimum;
    // The last cache, if the system says its size. A stream is in no cache when it is next read.
    const uint64 last = caches.third != 0 ? caches.third : caches.second;
    if (last != 0) {
        found.stream_copy = set.stream_copy;
        found.stream_copy_from = last / 2;
    }
    return found;
}
