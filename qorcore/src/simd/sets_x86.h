// Inside the SIMD routines: the instruction sets of x86-64.
#pragma once

#include "simd/simd.h"

namespace qor::simd {

extern const instruction_set sse2, avx2, avx512;

// What the processor says of itself, and which registers the operating system saves.
struct processor {
    bool has_avx2;
    bool has_avx512;       // and runs it at full speed
    bool has_fast_strings; // rep movsb and rep stosq work line by line
    uint64 string_gap;     // as in limits
};
processor read_processor() noexcept;

} // namespace qor::simd
