// Inside the SIMD routines: the phase of a fill's pattern. Internal to each unit that includes it: units
// compiled for wider instruction sets must not lend their code to the others.
#pragma once

#include "qor/system/Types.h"

#include <bit>

namespace {

// The pattern as it goes on `distance` bytes behind its beginning.
[[maybe_unused]] inline uint64 go_on(uint64 pattern, uint64 distance) noexcept {
    const unsigned bits = static_cast<unsigned>(distance % 8) * 8;
    if constexpr (std::endian::native == std::endian::little)
        return pattern >> bits | pattern << (-bits % 64);
    else
        return pattern << bits | pattern >> (-bits % 64);
}

} // namespace
