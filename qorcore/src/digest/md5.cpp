#include "digest/md5.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

namespace {

constexpr int step_count = 64;

// The integer parts of 2^32 times |sin(i + 1)|.
constexpr uint32 sines[step_count] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

constexpr int rotations[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// The word of the block that a step uses: the first one of its round, and the stride.
constexpr int first_word[4] = {0, 1, 5, 0};
constexpr int word_stride[4] = {1, 5, 3, 7};

// The message is little-endian on every machine.
uint32 load(const uint8* bytes) noexcept {
    uint32 value;
    std::memcpy(&value, bytes, sizeof value);
    if constexpr (std::endian::native == std::endian::big)
        value = __builtin_bswap32(value);
    return value;
}

void store(uint8* bytes, uint32 value) noexcept {
    for (std::size_t i = 0; i < sizeof value; ++i)
        bytes[i] = static_cast<uint8>(value >> (8 * i));
}

// Adds the mixing function of a round to `sum`. Every step waits for `b`, the result of the step before, so each form
// has a short path from `b`. In the second round, the usual OR of two masked values is an addition, because the masks
// have no bit in common: the half without `b` is added while `b` is still being computed.
template <int ROUND>
[[gnu::always_inline]] inline uint32 mix(uint32 sum, uint32 b, uint32 c, uint32 d) noexcept {
    if constexpr (ROUND == 0)
        return sum + (d ^ (b & (c ^ d)));
    else if constexpr (ROUND == 1)
        return sum + (~d & c) + (d & b);
    else if constexpr (ROUND == 2)
        return sum + (b ^ (c ^ d));
    else
        return sum + (c ^ (b | ~d));
}

// One step. The four words of the state change their roles instead of being moved.
template <int STEP>
[[gnu::always_inline]] inline void step(uint32 (&state)[4], const uint8* block) noexcept {
    constexpr int round = STEP / 16;
    constexpr int word = (first_word[round] + word_stride[round] * (STEP % 16)) % 16;
    uint32& a = state[(step_count - STEP) % 4];
    const uint32 b = state[(step_count - STEP + 1) % 4];
    const uint32 c = state[(step_count - STEP + 2) % 4];
    const uint32 d = state[(step_count - STEP + 3) % 4];
    a = std::rotl(mix<round>(a + sines[STEP] + load(block + 4 * word), b, c, d), rotations[round][STEP % 4]) + b;
}

template <int... STEPS>
[[gnu::always_inline]] inline void all_steps(uint32 (&state)[4], const uint8* block,
                                             std::integer_sequence<int, STEPS...>) noexcept {
    (step<STEPS>(state, block), ...);
}

} // namespace

void qor::digest::md5::take_blocks(const uint8* bytes, std::size_t count) noexcept {
    uint32 sum[4];
    std::copy_n(m_state, 4, sum);
    for (; count != 0; --count, bytes += block_size) {
        uint32 state[4];
        std::copy_n(sum, 4, state);
        all_steps(state, bytes, std::make_integer_sequence<int, step_count>());
        for (int i = 0; i < 4; ++i)
            sum[i] += state[i];
    }
    std::copy_n(sum, 4, m_state);
}

void qor::digest::md5::update(const uint8* bytes, std::size_t size) noexcept {
    if (size == 0)
        return;
    const std::size_t kept = m_size % block_size;
    m_size += size;
    if (kept != 0) {
        const std::size_t fill = std::min(size, block_size - kept);
        std::memcpy(m_rest + kept, bytes, fill);
        if (kept + fill < block_size)
            return;
        take_blocks(m_rest, 1);
        bytes += fill;
        size -= fill;
    }
    take_blocks(bytes, size / block_size);
    if (const std::size_t rest = size % block_size)
        std::memcpy(m_rest, bytes + (size - rest), rest);
}

void qor::digest::md5::finish(uint8 (&digest)[digest_size]) noexcept {
    // The padding: a one bit, zeros, and the size in bits in the last 64 bits of a block.
    constexpr std::size_t size_at = block_size - sizeof m_size;
    const uint64 bits = m_size * 8;
    const std::size_t kept = m_size % block_size;
    uint8 end[2 * block_size] = {0x80};
    const std::size_t length = (kept < size_at ? size_at : size_at + block_size) - kept;
    store(end + length, static_cast<uint32>(bits));
    store(end + length + 4, static_cast<uint32>(bits >> 32));
    update(end, length + 8);
    for (std::size_t i = 0; i < 4; ++i)
        store(digest + 4 * i, m_state[i]);
}
