// Selects the routine for each length on x86-64. The measurements are in docs/benchmarks.md.
#include "simd/pattern.h"
#include "simd/sets_x86.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace {

void string_copy(void* destination, const void* source, uint64 length) noexcept {
    asm volatile("rep movsb" : "+D"(destination), "+S"(source), "+c"(length) : : "memory");
}

// The instruction is fast only at an address that is a multiple of eight.
void string_fill(void* destination, uint64 pattern, uint64 length) noexcept {
    char* const to = static_cast<char*>(destination);
    const uint64 end = go_on(pattern, length);
    std::memcpy(to, &pattern, sizeof pattern);
    std::memcpy(to + length - sizeof end, &end, sizeof end);
    const uint64 head = 8 - reinterpret_cast<std::uintptr_t>(to) % 8;
    void* at = to + head;
    uint64 count = (length - head) / 8;
    asm volatile("rep stosq" : "+D"(at), "+c"(count) : "a"(go_on(pattern, head)) : "memory");
}

const qor::simd::processor& this_processor() noexcept {
    static const qor::simd::processor read = qor::simd::read_processor();
    return read;
}

uint64 or_default(uint64 known, uint64 otherwise) { return known != 0 ? known : otherwise; }

} // namespace

qor::simd::set_list qor::simd::available_sets() noexcept {
    set_list list{};
    if (this_processor().has_avx512)
        list.sets[list.count++] = &avx512;
    if (this_processor().has_avx2)
        list.sets[list.count++] = &avx2;
    list.sets[list.count++] = &sse2;
    list.sets[list.count++] = &plain;
    return list;
}

qor::simd::limits qor::simd::find_limits(const instruction_set& set, const cache_sizes& caches) noexcept {
    limits found;
    if (set.stream_copy == nullptr)
        return found;
    const uint64 first = or_default(caches.first_data, 32 << 10);
    const uint64 second = or_default(caches.second, 512 << 10);
    const uint64 third = or_default(caches.third, 8 << 20);
    if (this_processor().has_fast_strings) {
        // For copies whose source and destination together exceed the first-level cache, and for fills that exceed the
        // second-level cache.
        found.string_copy = string_copy;
        found.string_copy_from = first;
        found.string_gap = this_processor().string_gap;
        found.string_fill = string_fill;
        found.string_fill_from = second;
    }
    // Streamed data is in no cache when it is next read. So streaming pays only where the data would not stay in a
    // cache anyway, or where fetching the old contents of the destination costs more than that.
    found.stream_copy = this_processor().wants_pages ? set.stream_pages : set.stream_copy;
    found.stream_fill = set.stream_fill;
    found.stream_copy_from = std::min<uint64>(third / 2, 48 << 20);
    found.stream_fill_from = third;
    found.is_cold = is_cold;
    found.cold_copy_from = found.cold_fill_from = 128 << 10;
    return found;
}
