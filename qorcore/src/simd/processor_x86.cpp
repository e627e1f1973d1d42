#include "simd/sets_x86.h"

#include <cpuid.h>

namespace {

constexpr uint32 bit(int number) { return uint32{1} << number; }

// Leaf 1, register ECX; leaf 7, registers EBX and ECX.
constexpr uint32 os_uses_xsave = bit(27);
constexpr uint32 avx2_bit = bit(5);
constexpr uint32 fast_strings_bit = bit(9);
constexpr uint32 avx512_f_bit = bit(16);
constexpr uint32 avx512_vl_bit = bit(31);
constexpr uint32 avx512_vbmi2_bit = bit(6);

// The register state that the operating system saves at a thread switch: SSE and AVX; for AVX-512 also the masks and
// the wider halves.
constexpr uint32 avx_state = 0x06;
constexpr uint32 avx512_state = 0xe6;

uint32 saved_state() noexcept {
    uint32 low, high;
    asm volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    return low;
}

// AMD's processors before Zen 5 have the gap; Intel's have never had it.
constexpr uint32 zen5 = 0x1a;

bool has_gap(uint32 vendor, uint32 signature) noexcept {
    const uint32 family = (signature >> 8 & 0xf) + (signature >> 20 & 0xff);
    return vendor == signature_AMD_ebx && family < zen5;
}

} // namespace

qor::simd::processor qor::simd::read_processor() noexcept {
    uint32 a, b, c, d;
    __cpuid(0, a, b, c, d);
    const uint32 vendor = b;
    if (!__get_cpuid(1, &a, &b, &c, &d))
        return {};
    const uint64 gap = has_gap(vendor, a) ? 64 : 0;
    const uint32 saved = (c & os_uses_xsave) != 0 ? saved_state() : 0;
    if (!__get_cpuid_count(7, 0, &a, &b, &c, &d))
        return {};
    const bool keeps_avx = (saved & avx_state) == avx_state;
    const bool keeps_avx512 = (saved & avx512_state) == avx512_state;
    // The first processors with AVX-512 lower their clock for it. They can be recognised by their lack of VBMI2.
    return {.has_avx2 = keeps_avx && (b & avx2_bit) != 0,
            .has_avx512 =
                keeps_avx512 && (b & avx512_f_bit) != 0 && (b & avx512_vl_bit) != 0 && (c & avx512_vbmi2_bit) != 0,
            .has_fast_strings = (b & fast_strings_bit) != 0,
            .string_gap = gap,
            .wants_pages = vendor == signature_INTEL_ebx};
}
