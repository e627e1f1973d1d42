#include "log_fields.h"

#include "hexadecimal_digits.h"

#include <bit>
#include <cstdlib>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qor::heap {

namespace {

// Finds the first white space at or behind `at`; at the latest the line's end is found.
const char* find_space(const char* at) noexcept;

#if defined(__SSE2__)

const char* find_space(const char* at) noexcept {
    static_assert(qorReadLinesPadding >= sizeof(__m128i));
    const __m128i blank = _mm_set1_epi8(' ');
    const __m128i first = _mm_set1_epi8('\t');
    const __m128i span = _mm_set1_epi8('\r' - '\t');
    for (;; at += sizeof(__m128i)) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
        // \t to \r: after \t is subtracted, the unsigned bytes that are not above the span.
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

// Reads a word of one to eight digits that does not begin like an octal number. It converts all digits at once, because
// the end of a loop over them is mispredicted: pairs of digits become numbers, then pairs of these numbers, then pairs
// of those.
bool read_decimal(std::string_view word, uint64& value) noexcept {
    const std::size_t size = word.size();
    if (size == 0 || size > 8 || (word[0] == '0' && size > 1))
        return false;
    static_assert(qorReadLinesPadding >= sizeof value && std::endian::native == std::endian::little);
    std::memcpy(&value, word.data(), sizeof value);
    // Moves the last digit to the most significant byte; missing digits are 0.
    const std::size_t missing = 8 * (sizeof value - size);
    value = (value << missing) - (0x3030303030303030 << missing);
    if (((value | (value + 0x7676767676767676)) & 0x8080808080808080) != 0)
        return false;
    value = (value * (1 + (10 << 8))) >> 8 & 0x00ff00ff00ff00ff;
    value = (value * (1 + (100 << 16))) >> 16 & 0x0000ffff0000ffff;
    value = (value * (1 + (uint64{10000} << 32))) >> 32;
    return true;
}

} // namespace

bool log_fields::next_line(const char*& next, const char* end, std::string_view& line) noexcept {
    if (next == end)
        return false;
    const char* begin = next;
    const char* last = static_cast<const char*>(std::memchr(begin, '\n', static_cast<std::size_t>(end - begin)));
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
    // Reads the usual form by hand: the C library takes ten times as long.
    const char* at = word.data();
    if (word.size() > 2 && at[0] == '0' && (at[1] == 'x' || at[1] == 'X') && is_hexadecimal_digit(at[2]))
        at += 2;
    const hexadecimal_digits digits = read_hexadecimal_digits(at);
    // The C library handles signs and numbers that may be too large.
    if (digits.count == 0 || digits.count == 16)
        return std::strtoull(word.data(), nullptr, 16);
    return digits.value;
}

uint64 log_fields::unsigned_number(std::string_view word) noexcept {
    if (word.size() > 2 && word[0] == '0' && word[1] == 'x')
        return hexadecimal(word);
    uint64 value;
    return read_decimal(word, value) ? value : std::strtoull(word.data(), nullptr, 0);
}

int64 log_fields::signed_number(std::string_view word) noexcept {
    uint64 value;
    return read_decimal(word, value) ? static_cast<int64>(value) : std::strtoll(word.data(), nullptr, 0);
}

} // namespace qor::heap
