// Compiled for AVX2. Check the processor's features before you call anything here.
#include "memory/loops.h"

#include <immintrin.h>

namespace {

struct avx2_vector {
    using type = __m256i;
    static type load(const void* at) { return _mm256_loadu_si256(static_cast<const type*>(at)); }
    static void store(void* at, type value) { _mm256_storeu_si256(static_cast<type*>(at), value); }
    static void stream(void* at, type value) { _mm256_stream_si256(static_cast<type*>(at), value); }
    static type repeat(char value) { return _mm256_set1_epi8(value); }
    static void fence() { _mm_sfence(); }
};

} // namespace

void strategies::add_avx2(std::vector<strategy>& all) {
    loops<avx2_vector>::add(all, {"AVX2 loop", "AVX2 streams", "AVX2 streams, prefetch", "AVX2 streams by 2 pages",
                                  "AVX2 streams by 4 pages"});
}
