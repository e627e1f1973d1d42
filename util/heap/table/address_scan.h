// Finds an address among packed ones: the inner loop of the replay.
#pragma once

#include "qor/system/Types.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qor::heap {

// Returns the index of the first of `count` addresses, at or behind `start`, that equals `wanted`; `count` if there is
// none.
inline uint32 find_address(const uint64* addresses, uint32 start, uint32 count, uint64 wanted) noexcept;

#if defined(__SSE2__)

// Compares two addresses at a time. SSE2 compares 32-bit halves; an address is equal if both halves are.
inline uint32 find_address(const uint64* addresses, uint32 start, uint32 count, uint64 wanted) noexcept {
    const __m128i both = _mm_set1_epi64x(static_cast<long long>(wanted));
    uint32 i = start;
    for (; i + 2 <= count; i += 2) {
        const __m128i two = _mm_loadu_si128(reinterpret_cast<const __m128i*>(addresses + i));
        const __m128i halves = _mm_cmpeq_epi32(two, both);
        const __m128i equal = _mm_and_si128(halves, _mm_shuffle_epi32(halves, _MM_SHUFFLE(2, 3, 0, 1)));
        if (const int mask = _mm_movemask_pd(_mm_castsi128_pd(equal)))
            return i + ((mask & 1) != 0 ? 0 : 1);
    }
    return i < count && addresses[i] == wanted ? i : count;
}

#else

inline uint32 find_address(const uint64* addresses, uint32 start, uint32 count, uint64 wanted) noexcept {
    for (uint32 i = start; i < count; ++i)
        if (addresses[i] == wanted)
            return i;
    return count;
}

#endif

} // namespace qor::heap
