// The kernels for AArch64, each of whose processors has NEON.
#include "simd/kernels.h"
#include "simd/sets_arm64.h"

#include <arm_neon.h>

#include <cstdint>

namespace {

struct neon_vector {
    using half = neon_vector;
    using type = uint64x2_t;
    static type load(const void* at) noexcept { return vld1q_u64(static_cast<const uint64_t*>(at)); }
    static void store(void* at, type value) noexcept { vst1q_u64(static_cast<uint64_t*>(at), value); }
    static void store_aligned(void* at, type value) noexcept { store(at, value); }
    // No intrinsic has this instruction.
    static void stream(void* at, type first, type second) noexcept {
        asm volatile("stnp %q1, %q2, [%0]" : : "r"(at), "w"(first), "w"(second) : "memory");
    }
    static type repeat(uint64 pattern) noexcept { return vdupq_n_u64(pattern); }
    // These stores are ordered like all others.
    static void fence() noexcept {}
};

// The bytes that one DC ZVA clears, a power of two; 0 if the system does not allow it.
uint64 cleared_at_once() noexcept {
    uint64 properties;
    asm("mrs %0, dczid_el0" : "=r"(properties));
    return (properties & 16) != 0 ? 0 : uint64{4} << (properties & 15);
}

} // namespace

constinit const qor::simd::instruction_set qor::simd::neon = kernels<neon_vector>::set("neon");

void qor::simd::fill_by_blocks(void* destination, uint64 pattern, uint64 length) noexcept {
    const uint64 size = cleared_at_once();
    const uint64 end = size + small_limit + 1; // what a kernel fills at each end, more than a block
    if (pattern != 0 || size == 0 || length < 2 * end)
        return neon.fill_loop(destination, pattern, length);
    char* const to = static_cast<char*>(destination);
    neon.fill_loop(to, 0, end);
    neon.fill_loop(to + length - end, 0, end);
    const auto begin = reinterpret_cast<std::uintptr_t>(to);
    for (uint64 at = -begin % size; at + size <= length; at += size)
        asm volatile("dc zva, %0" : : "r"(to + at) : "memory");
}
