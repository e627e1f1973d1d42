// Compiled for AVX-512. Check the processor's features before you call anything here.
#include "memory/loops.h"

#include <immintrin.h>

namespace {

struct avx512_vector {
    using type = __m512i;
    static type load(const void* at) { return _mm512_loadu_si512(at); }
    static void store(void* at, type value) { _mm512_storeu_si512(at, value); }
    static void stream(void* at, type value) { _mm512_stream_si512(static_cast<type*>(at), value); }
    static type repeat(char value) { return _mm512_set1_epi64(static_cast<unsigned char>(value) * 0x0101010101010101); }
    static void fence() { _mm_sfence(); }
};

} // namespace

void strategies::add_avx512(std::vector<strategy>& all) {
    loops<avx512_vector>::add(all, {"AVX-512 loop", "AVX-512 streams", "AVX-512 streams, prefetch",
                                    "AVX-512 streams by 2 pages", "AVX-512 streams by 4 pages"});
}
