#include "log_fields.h"

#include <array>
#include <bit>
#include <cstdlib>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

// The first white space at or behind `at`; there is always one, the line's end.
const char* find_space(const char* at) noexcept;

#if defined(__SSE2__)

const char* find_space(const char* at) noexcept {
    static_assert(qorReadLinesPadding >= sizeof(__m128i));
    const __m128i blank = _mm_set1_epi8(' ');
    const __m128i first = _mm_set1_epi8('\t');
    const __m128i span = _mm_set1_epi8('\r' - '\t');
    for (;; at += sizeof(__m128i)) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
        // \t to \r: what is not above the span once \t is taken off, as unsigned bytes.
        const __m128i offset = _mm_sub_epi8(bytes, first);
        const __m128i control = _mm_cmpeq_epi8(_mm_min_epu8(offset, span), offset);
        const int found = _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(bytes, blank), control));
        if (found != 0)
            return at + std::countr_zero(static_cast<unsigned>(found));
    }
}

#else

const char* find_space(const char* at) noexcept {
    while (!log_fields::is_space(*at))
        ++at;
    return at;
}

#endif

constexpr uint8 no_digit = 0xff;

constexpr std::array<uint8, 256> digit_values = [] {
    std::array<uint8, 256> values{};
    values.fill(no_digit);
    for (uint8 i = 0; i < 10; ++i)
        values[static_cast<std::size_t>('0') + i] = i;
    for (uint8 i = 0; i < 6; ++i)
        values[static_cast<std::size_t>('a') + i] = values[static_cast<std::size_t>('A') + i] =
            static_cast<uint8>(10 + i);
    return values;
}();

uint8 digit_value(char c) noexcept { return digit_values[static_cast<unsigned char>(c)]; }

} // namespace

bool log_fields::next_line(const char*& next, const char* end, std::string_view& line) noexcept {
    if (next == end)
        return false;
    const char* begin = next;
    const char* last =
        static_cast<const char*>(std::memchr(begin, '\n', static_cast<std::size_t>(end - begin)));
    next = last + 1;
    while (begin != last && is_space(*begin))
        ++begin;
    while (begin != last && is_space(last[-1]))
        --last;
    line = {begin, static_cast<std::size_t>(last - begin)};
    return true;
}

std::string_view log_fields::next_word(std::string_view& rest) noexcept {
    const char* begin = rest.data();
    const char* const end = begin + rest.size();
    while (begin != end && is_space(*begin))
        ++begin;
    const char* const last = begin != end ? find_space(begin) : end;
    rest = {last, static_cast<std::size_t>(end - last)};
    return {begin, static_cast<std::size_t>(last - begin)};
}

uint64 log_fields::hexadecimal(std::string_view word) noexcept {
    // The usual form, by hand: the C library takes three times as long.
    const char* at = word.data();
    const char* const end = at + word.size();
    if (word.size() > 2 && at[0] == '0' && (at[1] == 'x' || at[1] == 'X') && digit_value(at[2]) != no_digit)
        at += 2;
    // Signs and what may be too large a number are left to the C library.
    if (end - at > 16 || (at != end && digit_value(*at) == no_digit))
        return std::strtoull(word.data(), nullptr, 16);
    uint64 value = 0;
    for (; at != end; ++at) {
        const uint8 digit = digit_value(*at);
        if (digit == no_digit)
            break;
        value = value << 4 | digit;
    }
    return value;
}

uint64 log_fields::unsigned_number(std::string_view word) noexcept {
    if (word.size() > 2 && word[0] == '0' && word[1] == 'x')
        return hexadecimal(word);
    return std::strtoull(word.data(), nullptr, 0);
}

int64 log_fields::signed_number(std::string_view word) noexcept { return std::strtoll(word.data(), nullptr, 0); }
