#include "memory/loops.h"

#include <immintrin.h>

namespace {

struct sse2_vector {
    using type = __m128i;
    static type load(const void* at) { return _mm_loadu_si128(static_cast<const type*>(at)); }
    static void store(void* at, type value) { _mm_storeu_si128(static_cast<type*>(at), value); }
    static void stream(void* at, type value) { _mm_stream_si128(static_cast<type*>(at), value); }
    static type repeat(char value) { return _mm_set1_epi8(value); }
    static void fence() { _mm_sfence(); }
};

} // namespace

void strategies::add_sse2(std::vector<strategy>& all) {
    loops<sse2_vector>::add(all, {"SSE2 loop", "SSE2 streams", "SSE2 streams, prefetch", "SSE2 streams by 2 pages",
                                  "SSE2 streams by 4 pages"});
}
