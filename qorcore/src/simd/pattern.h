// Inside the SIMD routines: the phase of a fill's pattern. Internal linkage, because units that are compiled for wider
// instruction sets must not share their code with the others.
#pragma once

#include "qor/system/Types.h"

#include <bit>

namespace {

// The pattern as it continues `distance` bytes after its beginning.
[[maybe_unused]] inline uint64 go_on(uint64 pattern, uint64 distance) noexcept {
    const unsigned bits = static_cast<unsigned>(distance % 8) * 8;
    if constexpr (std::endian::native == std::endian::little)
        return pattern >> bits | pattern << (-bits % 64);
    else
        return pattern << bits | pattern >> (-bits % 64);
}

} // namespace
