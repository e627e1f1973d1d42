// Reads hexadecimal digits, which make up most of a heap log.
#pragma once

#include "qor/system/File.h"

#include <bit>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qor::heap {

inline bool is_hexadecimal_digit(char c) noexcept {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// The value of up to 16 digits, and their count.
struct hexadecimal_digits {
    uint64 value;
    unsigned count;
};

// Reads 16 bytes, of any content.
inline hexadecimal_digits read_hexadecimal_digits(const char* at) noexcept;

#if defined(__SSE2__)

// Converts all sixteen bytes at once, whatever they are: numbers of every length cost the same, and no branch is
// mispredicted.
inline hexadecimal_digits read_hexadecimal_digits(const char* at) noexcept {
    static_assert(qorReadLinesPadding >= sizeof(__m128i));
    const auto at_most = [](__m128i bytes, char limit) {
        return _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(limit)), bytes);
    };
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
    const __m128i digit = _mm_sub_epi8(bytes, _mm_set1_epi8('0'));
    const __m128i letter = _mm_sub_epi8(_mm_or_si128(bytes, _mm_set1_epi8(0x20)), _mm_set1_epi8('a'));
    const __m128i is_digit = at_most(digit, 9);
    const __m128i is_letter = at_most(letter, 5);
    const unsigned good = static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(is_digit, is_letter)));
    const unsigned count = static_cast<unsigned>(std::countr_one(good));
    const __m128i nibbles =
        _mm_or_si128(_mm_and_si128(is_digit, digit), _mm_and_si128(is_letter, _mm_add_epi8(letter, _mm_set1_epi8(10))));
    // Two nibbles make a byte, and eight bytes a word whose first byte is the most significant.
    const __m128i pairs =
        _mm_and_si128(_mm_or_si128(_mm_slli_epi16(nibbles, 4), _mm_srli_epi16(nibbles, 8)), _mm_set1_epi16(0xff));
    const uint64 packed = static_cast<uint64>(_mm_cvtsi128_si64(_mm_packus_epi16(pairs, pairs)));
    const uint64 all = __builtin_bswap64(packed);
    // The shift has two steps because a shift by the full width of a word is undefined. No digits give 0.
    return {count == 16 ? all : all >> 4 >> (60 - 4 * count), count};
}

#else

inline hexadecimal_digits read_hexadecimal_digits(const char* at) noexcept {
    hexadecimal_digits digits{0, 0};
    for (; digits.count < 16 && is_hexadecimal_digit(at[digits.count]); ++digits.count) {
        const char c = at[digits.count];
        digits.value = digits.value << 4 | static_cast<uint64>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
    }
    return digits;
}

#endif

} // namespace qor::heap
