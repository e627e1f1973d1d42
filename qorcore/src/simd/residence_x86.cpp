// Finds out whether a block lies in a cache: memory takes several times as long to answer as any cache does. The sizes
// of the caches tell less. A virtual machine may name a cache that it shares with a hundred others, and a small block
// may have left the caches long ago.
#include "simd/sets_x86.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <emmintrin.h>
#include <x86intrin.h>

namespace {

constexpr uint64 page = 4096;

uint64 now() noexcept {
    _mm_lfence();
    const uint64 ticks = __rdtsc();
    _mm_lfence();
    return ticks;
}

uint64 time_of_load(const char* at) noexcept {
    const uint64 begin = now();
    asm volatile("" : : "r"(*static_cast<const volatile char*>(at)));
    return now() - begin;
}

// Makes the page writable and its address known to the processor, so that the next load in it waits for nothing but
// its data. A write that changes nothing: a load would first map a page of zeros where the memory is new.
void touch(char* at) noexcept { asm volatile("orb $0, %0" : "+m"(*at)); }

// Half-way between a load from the nearest cache and one from memory. Caches that other cores share are much nearer to
// the former. 0 if the two take nearly the same time, as in an emulator.
uint64 find_limit() noexcept {
    alignas(page) static char block[page];
    std::array<uint64, 15> near, far;
    touch(block);
    for (uint64& time : far) {
        _mm_clflush(block + page / 2);
        _mm_mfence();
        time = time_of_load(block + page / 2);
    }
    for (uint64& time : near)
        time = time_of_load(block + page / 2);
    std::ranges::sort(near), std::ranges::sort(far);
    const uint64 cache = near[near.size() / 2], memory = far[far.size() / 2];
    return memory > 3 * cache ? (cache + memory) / 2 : 0;
}

} // namespace

bool qor::simd::is_cold(void* block, uint64 length) noexcept {
    static const uint64 limit = find_limit();
    if (limit == 0)
        return false;
    // Each sample costs a hundredth of the time that a copy of its part takes, or less.
    constexpr uint64 most = 16;
    const uint64 count = std::clamp<uint64>(length / (128 << 10), 1, most);
    const auto begin = reinterpret_cast<std::uintptr_t>(block);
    char* samples[most];
    for (uint64 i = 0; i < count; ++i) {
        const std::uintptr_t middle = begin + length / (2 * count) * (2 * i + 1);
        samples[i] = static_cast<char*>(block) + (middle / page * page - begin);
        touch(samples[i]);
    }
    uint64 slow = 0;
    for (uint64 i = 0; i < count; ++i)
        slow += time_of_load(samples[i] + page / 2) > limit;
    return slow > count / 2;
}
