// Compares the memory routines with those of the C library, in one process and on the same memory.
//
//   simd_bench [--brief]
//
// Prints how many times faster ours are: the ratio of the medians of interleaved rounds, each called as a client calls
// it. If a figure is below its limit, the exit code is 1. A brief run never fails because of a figure, since other
// programs influence it too much.
#include "simd/simd.h"
#include "qor/qor.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <gnu/libc-version.h>
#include <string>
#include <vector>

#if defined(__x86_64__)
#include <emmintrin.h>
#endif

namespace {

constexpr uint64 kib = 1024, mib = 1024 * kib;
// Much larger than any cache of the measured classes, so that no cold round finds in a cache memory that an earlier
// round touched.
constexpr uint64 half_pool = 256 * mib;

bool s_brief = false;
bool s_missed = false;
char* s_to;
char* s_from;

using routine = void (*)(char* to, const char* from, uint64 length);

// Hidden from the compiler, which would otherwise replace some of these calls by its own code.
void* (*volatile library_copy)(void*, const void*, std::size_t) = std::memcpy;
void* (*volatile library_fill)(void*, int, std::size_t) = std::memset;

void their_copy(char* to, const char* from, uint64 length) { library_copy(to, from, length); }
void our_copy(char* to, const char* from, uint64 length) { simd_memcpy_safe(to, from, length); }
void their_fill(char* to, const char*, uint64 length) { library_fill(to, 7, length); }
void our_fill(char* to, const char*, uint64 length) { simd_memset_u8(to, 7, length); }
void their_zero(char* to, const char*, uint64 length) { library_fill(to, 0, length); }
void our_zero(char* to, const char*, uint64 length) { simd_zero(to, length); }

// Reads the memory that a routine has written, as its caller would.
uint64 sum(const char* from, uint64 length) {
    uint64 total[4] = {};
    for (uint64 i = 0; i + 32 <= length; i += 32)
        for (int k = 0; k < 4; ++k) {
            uint64 word;
            __builtin_memcpy(&word, from + i + k * 8, sizeof word);
            total[k] += word;
        }
    return total[0] + total[1] + total[2] + total[3];
}
volatile uint64 s_sum;

template <routine WRITE>
void and_read(char* to, const char* from, uint64 length) {
    WRITE(to, from, length);
    s_sum = sum(to, length);
}

#if defined(__x86_64__)
// The fastest way to write memory on this processor: only stores that bypass the caches.
template <char VALUE>
void write_ceiling(char* to, const char*, uint64 length) {
    const __m128i value = _mm_set1_epi8(VALUE);
    for (uint64 i = 0; i < length; i += sizeof value)
        _mm_stream_si128(reinterpret_cast<__m128i*>(to + i), value);
    _mm_sfence();
}

// The fastest of sixteen ways to copy memory that were tried on a Zen 5: its own instruction.
void copy_ceiling(char* to, const char* from, uint64 length) {
    asm volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(length) : : "memory");
}
#endif

struct work {
    uint64 length;
    uint64 to_offset = 0, from_offset = 0;
    bool cold = false;
};

// Returns nanoseconds per call. A cold round continues through the pool; `place` keeps its position.
double round_of(routine run, const work& what, uint64& place) {
    using clock = std::chrono::steady_clock;
    const uint64 stride = (what.length + 4 * kib) / (4 * kib) * (4 * kib) + 4 * kib;
    const uint64 volume = s_brief ? mib / 4 : 8 * mib;
    const uint64 calls = std::clamp<uint64>(volume / what.length, 1, s_brief ? 1000 : 20000);
    const auto begin = clock::now();
    for (uint64 i = 0; i < calls; ++i) {
        if (what.cold)
            place = place + 2 * stride <= half_pool ? place + stride : 0;
        run(s_to + place + what.to_offset, s_from + place + what.from_offset, what.length);
    }
    return std::chrono::duration<double, std::nano>(clock::now() - begin).count() / static_cast<double>(calls);
}

double median(std::vector<double>& values) {
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

std::string size_name(uint64 size) {
    return size >= mib   ? std::to_string(size / mib) + " MiB"
           : size >= kib ? std::to_string(size / kib) + " KiB"
                         : std::to_string(size) + " B";
}

// The two run in turn, and take turns in running first.
double compare(const char* name, routine theirs, routine ours, const work& what, double limit) {
    std::vector<double> their_times, our_times;
    uint64 place = 0;
    const int rounds = s_brief ? 3 : what.length >= mib ? 31 : 61;
    for (int i = 0; i < rounds; ++i)
        for (const bool us : {i % 2 == 0, i % 2 != 0})
            (us ? our_times : their_times).push_back(round_of(us ? ours : theirs, what, place));
    const double our_median = median(our_times);
    const double ratio = median(their_times) / our_median;
    const bool missed = limit > 0 && ratio < limit;
    std::printf("%-34s %8s %s %8.1f GB/s %6.2f", name, size_name(what.length).c_str(), what.cold ? "cold" : "hot ",
                static_cast<double>(what.length) / our_median, ratio);
    if (limit > 0)
        std::printf("  (at least %.2f)%s", limit, missed ? " MISSED" : "");
    std::putchar('\n');
    std::fflush(stdout);
    s_missed |= missed;
    return ratio;
}

std::vector<uint64> sizes(uint64 from, uint64 to) {
    std::vector<uint64> all;
    for (uint64 size = from; size <= to; size *= 2)
        if (!s_brief || size == from || size == to)
            all.push_back(size);
    return all;
}

void compare_copies() {
    for (const uint64 size : sizes(16, 512))
        compare("copy", their_copy, our_copy, {size}, 0.95);
    for (const bool cold : {false, true})
        for (const uint64 size : sizes(kib, 8 * mib))
            compare("copy", their_copy, our_copy, {size, 0, 0, cold}, cold ? 0.9 : 0.95);
    compare("copy", their_copy, our_copy, {16 * mib}, 1.2);
    compare("copy", their_copy, our_copy, {64 * mib}, 1.6);
    for (const uint64 size : {256 * uint64{1}, 4 * kib, 256 * kib, 4 * mib})
        compare("copy, source at 1", their_copy, our_copy, {size, 0, 1}, 0.95);
    compare("copy, source at 1", their_copy, our_copy, {64 * mib, 0, 1}, 1.6);
#if defined(__x86_64__)
    compare("copy, beside rep movsb", copy_ceiling, our_copy, {64 * mib}, 0.95);
#endif
    for (const uint64 ahead : {1, 16, 64})
        for (const uint64 size : {64 * kib, 256 * kib}) {
            const std::string name = "copy, destination " + std::to_string(ahead) + " ahead";
            compare(name.c_str(), their_copy, our_copy, {size, ahead}, 0.95);
        }
}

void compare_fills() {
    for (const uint64 size : sizes(16, 256))
        compare("fill", their_fill, our_fill, {size}, 0);
    for (const uint64 size : sizes(512, 16 * mib))
        compare("fill", their_fill, our_fill, {size}, 0.9);
    compare("fill", their_fill, our_fill, {64 * mib}, 0.95);
#if defined(__x86_64__)
    compare("fill, beside stores past the caches", write_ceiling<7>, our_fill, {64 * mib}, 0.95);
#endif
    for (const uint64 size : {32 * mib, 64 * mib})
        compare("zero", their_zero, our_zero, {size}, 1.05);
#if defined(__x86_64__)
    compare("zero, beside stores past the caches", write_ceiling<0>, our_zero, {64 * mib}, 0.95);
#endif
}

void compare_with_reading() {
    for (const uint64 size : sizes(16 * kib, 8 * mib))
        compare("fill, then read", and_read<their_fill>, and_read<our_fill>, {size}, 0.93);
    for (const uint64 size : sizes(16 * kib, 8 * mib))
        compare("copy, then read", and_read<their_copy>, and_read<our_copy>, {size}, 0.93);
}

std::string processor() {
    std::ifstream file("/proc/cpuinfo");
    for (std::string line; std::getline(file, line);)
        if (line.starts_with("model name"))
            return line.substr(line.find(':') + 2);
    return "unknown processor";
}

char* allocate() {
    void* const block = qor_do_malloc(2 * mib, half_pool + 2 * mib, true, "bench/simd", __LINE__);
    std::memset(block, 1, half_pool + 2 * mib);
    return static_cast<char*>(block);
}

} // namespace

int main(int argc, char** argv) {
    s_brief = argc == 2 && std::strcmp(argv[1], "--brief") == 0;
    if (argc > 1 && !s_brief) {
        std::fputs("usage: simd_bench [--brief]\n", stderr);
        return 2;
    }
    const qor::simd::cache_sizes caches = qor::simd::read_cache_sizes();
    std::printf("%s; caches %llu KiB, %llu KiB, %llu KiB; C library %s\n", processor().c_str(), caches.first_data / kib,
                caches.second / kib, caches.third / kib, gnu_get_libc_version());
    s_to = allocate();
    s_from = allocate();
    compare_copies();
    compare_fills();
    compare_with_reading();
    return s_brief || !s_missed ? 0 : 1;
}
