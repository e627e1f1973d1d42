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
};
processor read_processor() noexcept;

} // namespace qor::simd
