// Compiled for AVX2. Check the processor's features before you call anything here.
#include "simd/kernels.h"
#include "simd/sets_x86.h"

#include <immintrin.h>

namespace {

struct avx2_vector {
    using half = avx2_vector;
    using type = __m256i;
    static type load(const void* at) noexcept { return _mm256_loadu_si256(static_cast<const type*>(at)); }
    static void store(void* at, type value) noexcept { _mm256_storeu_si256(static_cast<type*>(at), value); }
    static void store_aligned(void* at, type value) noexcept { _mm256_store_si256(static_cast<type*>(at), value); }
    static void stream(void* at, type first, type second) noexcept {
        _mm256_stream_si256(static_cast<type*>(at), first);
        _mm256_stream_si256(static_cast<type*>(at) + 1, second);
    }
    static type repeat(uint64 pattern) noexcept { return _mm256_set1_epi64x(static_cast<long long>(pattern)); }
    static void fence() noexcept { _mm_sfence(); }
};

} // namespace

constinit const qor::simd::instruction_set qor::simd::avx2 = kernels<avx2_vector>::set("avx2");
