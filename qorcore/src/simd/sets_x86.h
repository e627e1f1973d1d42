// Inside the SIMD routines: the instruction sets of x86-64.
#pragma once

#include "simd/simd.h"

namespace qor::simd {

extern const instruction_set sse2, avx2, avx512;

// The processor's features, as far as the operating system saves the registers they need.
struct processor {
    bool has_avx2;
    bool has_avx512;       // and runs it at full clock speed
    bool has_fast_strings; // rep movsb and rep stosq work in whole cache lines
    uint64 string_gap;     // as in struct limits
    bool wants_pages;      // streams copies faster if they take several pages in turn
};
processor read_processor() noexcept;

// The shortest block that is_cold can judge.
inline constexpr uint64 least_judged = 16 << 10;

// Whether most of a block lies in no cache of this processor. Times loads of a few of its lines; changes no byte of it.
// Needs at least least_judged bytes, which the caller may write.
bool is_cold(void* block, uint64 length) noexcept;

} // namespace qor::simd
