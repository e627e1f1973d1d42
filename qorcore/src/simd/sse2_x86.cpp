#include "simd/kernels.h"
#include "simd/sets_x86.h"

#include <emmintrin.h>

namespace {

struct sse2_vector {
    using half = sse2_vector;
    using type = __m128i;
    static type load(const void* at) noexcept { return _mm_loadu_si128(static_cast<const type*>(at)); }
    static void store(void* at, type value) noexcept { _mm_storeu_si128(static_cast<type*>(at), value); }
    static void store_aligned(void* at, type value) noexcept { _mm_store_si128(static_cast<type*>(at), value); }
    static void stream(void* at, type first, type second) noexcept {
        _mm_stream_si128(static_cast<type*>(at), first);
        _mm_stream_si128(static_cast<type*>(at) + 1, second);
    }
    static type repeat(uint64 pattern) noexcept { return _mm_set1_epi64x(static_cast<long long>(pattern)); }
    static void fence() noexcept { _mm_sfence(); }
};

} // namespace

constinit const qor::simd::instruction_set qor::simd::sse2 = kernels<sse2_vector>::set("sse2");
