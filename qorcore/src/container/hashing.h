// Hash functions of the containers. Their key is random for each process, so that nobody can choose values that
// collide.
#pragma once

#include "qor/system/Types.h"

#include <cstring>
#include <string_view>

namespace qor::container {

// The random key of this process.
uint64 hash_key() noexcept;

// Multiplies to 128 bits and folds the halves.
inline uint64 mix(uint64 left, uint64 right) noexcept {
    __extension__ using wide = unsigned __int128;
    const wide product = static_cast<wide>(left) * right;
    return static_cast<uint64>(product) ^ static_cast<uint64>(product >> 64);
}

inline constexpr uint64 hash_multiplier = 0x9e3779b97f4a7c15; // 2^64 / golden ratio

inline uint64 hash_number(uint64 number, uint64 key) noexcept { return mix(number ^ key, hash_multiplier); }

// Each step takes sixteen bytes; the last ones overlap the step before.
inline uint64 hash_bytes(std::string_view bytes, uint64 key) noexcept {
    const char* at = bytes.data();
    std::size_t left = bytes.size();
    uint64 state = key;
    uint64 first = 0, second = 0;
    const auto load = [](const char* from, std::size_t count) noexcept {
        uint64 word = 0;
        std::memcpy(&word, from, count);
        return word;
    };
    if (left >= 8) {
        for (; left > 16; at += 16, left -= 16)
            state = mix(load(at, 8) ^ hash_multiplier, load(at + 8, 8) ^ state);
        const char* const end = at + left;
        first = bytes.size() > 16 ? load(end - 16, 8) : load(at, 8);
        second = load(end - 8, 8);
    } else if (left >= 4) {
        first = load(at, 4);
        second = load(at + left - 4, 4);
    } else if (left != 0) {
        first = uint64{static_cast<unsigned char>(at[0])} << 16 |
                uint64{static_cast<unsigned char>(at[left / 2])} << 8 | static_cast<unsigned char>(at[left - 1]);
    }
    return mix(hash_multiplier ^ bytes.size(), mix(first ^ hash_multiplier, second ^ state));
}

} // namespace qor::container
