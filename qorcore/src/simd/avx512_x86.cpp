// Compiled for AVX-512. Check the processor's features before you call anything here.
#include "simd/kernels.h"
#include "simd/sets_x86.h"

#include <immintrin.h>

namespace {

struct half_vector {
    using type = __m256i;
    static type load(const void* at) noexcept { return _mm256_loadu_si256(static_cast<const type*>(at)); }
    static void store(void* at, type value) noexcept { _mm256_storeu_si256(static_cast<type*>(at), value); }
    static type repeat(uint64 pattern) noexcept { return _mm256_set1_epi64x(static_cast<long long>(pattern)); }
};

struct avx512_vector {
    using half = half_vector;
    using type = __m512i;
    static type load(const void* at) noexcept { return _mm512_loadu_si512(at); }
    static void store(void* at, type value) noexcept { _mm512_storeu_si512(at, value); }
    static void store_aligned(void* at, type value) noexcept { _mm512_store_si512(at, value); }
    static void stream(void* at, type first, type second) noexcept {
        _mm512_stream_si512(static_cast<type*>(at), first);
        _mm512_stream_si512(static_cast<type*>(at) + 1, second);
    }
    static type repeat(uint64 pattern) noexcept { return _mm512_set1_epi64(static_cast<long long>(pattern)); }
    static void fence() noexcept { _mm_sfence(); }
    static void store_some(void* at, type value, uint64 count) noexcept {
        _mm512_mask_storeu_epi8(at, first(count), value);
    }
    static void copy_some(void* to, const void* from, uint64 count) noexcept {
        _mm512_mask_storeu_epi8(to, first(count), _mm512_maskz_loadu_epi8(first(count), from));
    }
    static __mmask64 first(uint64 count) noexcept { return _bzhi_u64(~0ULL, static_cast<unsigned>(count)); }
};

} // namespace

constinit const qor::simd::instruction_set qor::simd::avx512 = kernels<avx512_vector>::set("avx512");
