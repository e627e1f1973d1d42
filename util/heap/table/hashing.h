// The hash functions of the engine's tables. The key is random and chosen once per process, so nobody can write a log
// whose entries collide.
#pragma once

#include "qor/system/Types.h"

#include <string_view>

namespace qor::heap::hashing {

extern const uint64 key;

inline constexpr uint64 multiplier = 0x9e3779b97f4a7c15; // 2^64 / golden ratio

inline uint64 mix(uint64 state, uint64 word) noexcept {
    state = (state ^ word) * multiplier;
    return state ^ (state >> 29);
}

inline uint32 finish(uint64 state) noexcept { return static_cast<uint32>((state * multiplier) >> 32); }

inline uint32 of_address(uint64 address) noexcept { return finish(mix(key, address)); }

uint32 of_text(std::string_view text) noexcept;

// Hashes the length and the last sixteen bytes, which the text must have. The address in a caller is at its end, so
// these bytes distinguish callers.
uint32 of_end(std::string_view text) noexcept;

} // namespace qor::heap::hashing
