// The kernels for an unknown processor. They have no stores that bypass the caches.
#include "simd/kernels.h"

#include <cstring>

namespace {

struct words {
    using half = words;
    struct type {
        uint64 low, high;
    };
    static type load(const void* at) noexcept {
        type value;
        std::memcpy(&value, at, sizeof value);
        return value;
    }
    static void store(void* at, type value) noexcept { std::memcpy(at, &value, sizeof value); }
    static void store_aligned(void* at, type value) noexcept { store(at, value); }
    static type repeat(uint64 pattern) noexcept { return {pattern, pattern}; }
};

} // namespace

constinit const qor::simd::instruction_set qor::simd::plain = {
    "plain", kernels<words>::rows(), kernels<words>::copy_loop, kernels<words>::fill_loop, nullptr, nullptr, nullptr};
