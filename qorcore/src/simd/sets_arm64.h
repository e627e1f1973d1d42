// Inside the SIMD routines: the instruction set of AArch64.
#pragma once

#include "simd/simd.h"

namespace qor::simd {

extern const instruction_set neon;

// A fill that clears whole blocks with DC ZVA, where the pattern is zero and the system allows it. Needs at least
// zero_minimum bytes.
inline constexpr uint64 zero_minimum = 512;
void fill_by_blocks(void* destination, uint64 pattern, uint64 length) noexcept;

} // namespace qor::simd
