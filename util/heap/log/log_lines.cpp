#include "log_lines.h"

#include "hexadecimal_digits.h"
#include "log_fields.h"

#include <array>
#include <bit>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qor::heap {

namespace {

static_assert(qorReadLinesPadding >= 64);

// Returns a bit for each of 64 bytes that is a blank or a control character. Control characters that are not white
// space are rare, so a line with one may take the slow path.
uint64 gaps(const char* at) noexcept;

// Returns a bit for each of 48 bytes that is a line's end.
uint64 line_ends(const char* at) noexcept;

#if defined(__SSE2__)

// Returns bits for the bytes that are equal in `before` and `after`: sixteen of them, at their place among 64.
[[gnu::always_inline]] inline uint64 equal_bits(__m128i before, __m128i after, unsigned place) noexcept {
    return static_cast<uint64>(static_cast<uint32>(_mm_movemask_epi8(_mm_cmpeq_epi8(before, after)))) << place;
}

[[gnu::always_inline]] inline __m128i sixteen(const char* at) noexcept {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}

[[gnu::always_inline]] inline uint64 gaps(const char* at) noexcept {
    const __m128i blank = _mm_set1_epi8(' ');
    const auto found = [=](unsigned place) {
        const __m128i bytes = sixteen(at + place);
        return equal_bits(bytes, _mm_min_epu8(bytes, blank), place);
    };
    return found(0) | found(16) | found(32) | found(48);
}

[[gnu::always_inline]] inline uint64 line_ends(const char* at) noexcept {
    const __m128i end = _mm_set1_epi8('\n');
    const auto found = [=](unsigned place) { return equal_bits(sixteen(at + place), end, place); };
    return found(0) | found(16) | found(32);
}

#else

uint64 gaps(const char* at) noexcept {
    uint64 found = 0;
    for (int i = 0; i < 64; ++i)
        found |= uint64{static_cast<unsigned char>(at[i]) <= ' '} << i;
    return found;
}

uint64 line_ends(const char* at) noexcept {
    uint64 found = 0;
    for (int i = 0; i < 48; ++i)
        found |= uint64{at[i] == '\n'} << i;
    return found;
}

#endif

[[gnu::always_inline]] inline const char* find_gap(const char* at) noexcept {
    for (;; at += 64)
        if (const uint64 found = gaps(at))
            return at + std::countr_zero(found);
}

std::string_view between(const char* begin, const char* end) noexcept {
    return {begin, static_cast<std::size_t>(end - begin)};
}

// Takes "0x" and digits. At most 16 digits are taken, so that a longer number is not followed by an end.
bool take_number(const char*& at, uint64& value) noexcept {
    if (at[0] != '0' || at[1] != 'x')
        return false;
    const hexadecimal_digits digits = read_hexadecimal_digits(at + 2);
    value = digits.value;
    at += 2 + digits.count;
    return digits.count != 0;
}

enum class code_meaning : unsigned char { none, allocation, release };

constexpr auto meanings = [] {
    std::array<code_meaning, 256> all{};
    all['+'] = all['>'] = code_meaning::allocation;
    all['-'] = all['<'] = code_meaning::release;
    return all;
}();

// Inlined into the loop over all lines, so that its results stay in registers.
template <class SIZE>
[[gnu::always_inline]] inline bool parse_canonical_inline(const char*& next,
                                                          log_lines::mtrace_line<SIZE>& out) noexcept {
    if (next[0] != '@' || next[1] != ' ')
        return false;
    const char* const caller = next + 2;
    const char* const code = find_gap(caller) + 1;
    // If the gap were the line's end, the next line or the padding would follow it.
    if (code == caller + 1 || code[-1] != ' ' || code[1] != ' ')
        return false;
    // The start of the next line is found without waiting for this line's numbers, so that a processor can work on
    // both.
    const uint64 ends = line_ends(code);
    const char* const end = code + std::countr_zero(ends);
    // Allocations and releases come in an order that no processor can predict. So both share one path: for a release, a
    // size is read where there is none, and is not used.
    const code_meaning meaning = meanings[static_cast<unsigned char>(*code)];
    const char* at = code + 2;
    if (!take_number(at, out.address) || meaning == code_meaning::none)
        return false;
    const hexadecimal_digits size = read_hexadecimal_digits(at + 3);
    const bool has_size = *at == ' ';
    const bool is_number = (at[1] == '0') & (at[2] == 'x') & (size.count != 0);
    at += has_size * (3 + size.count);
    if ((at != end) | (ends == 0) | (has_size & !is_number))
        return false;
    out.is_alloc = meaning == code_meaning::allocation;
    out.caller = between(caller, code - 1);
    out.code = {code, 1};
    out.size = has_size * static_cast<SIZE>(size.value);
    out.is_code_known = true;
    next = end + 1;
    return true;
}

} // namespace

template <class SIZE>
bool log_lines::parse_canonical(const char*& next, mtrace_line<SIZE>& out) {
    return parse_canonical_inline(next, out);
}

template <class SIZE>
log_lines::kind log_lines::parse(std::string_view line, mtrace_line<SIZE>& out) {
    if (line.empty() || line[0] != '@')
        return kind::no_meaning;
    std::string_view rest = line.substr(1);
    out.caller = log_fields::next_word(rest);
    out.code = log_fields::next_word(rest);
    const std::string_view address = log_fields::next_word(rest);
    const std::string_view size = log_fields::next_word(rest);
    if (address.empty())
        return kind::too_few_words;
    out.address = log_fields::hexadecimal(address);
    out.size = size.empty() ? 0 : static_cast<SIZE>(log_fields::unsigned_number(size));
    const code_meaning meaning = meanings[static_cast<unsigned char>(out.code[0])];
    out.is_code_known = meaning != code_meaning::none;
    out.is_alloc = out.is_code_known ? meaning == code_meaning::allocation : out.size != 0;
    return kind::record;
}

namespace {

template <class SIZE>
[[gnu::always_inline]] inline bool parse_canonical_inline(const char*& next,
                                                          log_lines::memcheck_line<SIZE>& out) noexcept {
    const char code = next[0];
    if ((code != 'A' && code != 'F' && code != 'T') || next[1] != ' ')
        return false;
    // Finds the words at the line's beginning by the gaps behind them.
    const char* words[4] = {next + 2};
    uint64 left = gaps(words[0]);
    const unsigned wanted = code == 'A' ? 3 : 1;
    for (unsigned i = 0; i < wanted; ++i) {
        const char* const end = next + 2 + std::countr_zero(left);
        if (left == 0 || end == words[i] || *end != ' ')
            return false;
        words[i + 1] = end + 1;
        left &= left - 1;
    }
    const auto word = [&words](unsigned i) { return between(words[i], words[i + 1] - 1); };
    const char* const last = words[wanted];
    const char* end = find_gap(last);
    const std::string_view last_word = between(last, end);
    if (last_word.empty())
        return false;
    int32 line = 0;
    if (code == 'A') {
        const char* const number = end + 1;
        if (*end != ' ')
            return false;
        end = find_gap(number);
        if (end == number)
            return false;
        line = static_cast<int32>(log_fields::signed_number(between(number, end)));
    }
    if (*end != '\n')
        return false;
    out.code = code;
    out.address = log_fields::hexadecimal(word(0));
    out.size = 0;
    out.bt = 0;
    out.line = line;
    out.file = out.type_name = {};
    if (code == 'A') {
        out.size = static_cast<SIZE>(log_fields::unsigned_number(word(1)));
        out.bt = static_cast<uint8>(log_fields::unsigned_number(word(2)));
        out.file = last_word;
    } else if (code == 'F') {
        out.bt = static_cast<uint8>(log_fields::unsigned_number(last_word));
    } else {
        out.type_name = last_word;
    }
    next = end + 1;
    return true;
}

} // namespace

template <class SIZE>
bool log_lines::parse_canonical(const char*& next, memcheck_line<SIZE>& out) {
    return parse_canonical_inline(next, out);
}

template <class SIZE>
log_lines::kind log_lines::parse(std::string_view line, memcheck_line<SIZE>& out) {
    if (line.empty() || line[0] == '#')
        return kind::no_meaning;
    const char code = line[0];
    std::string_view rest = line.substr(1);
    std::string_view words[5]; // address, and others whose meaning depends on the code
    uint32 count = 0;
    while (count < 5 && !(words[count] = log_fields::next_word(rest)).empty())
        ++count;
    const uint32 needed = code == 'A' ? 3 : code == 'T' ? 2 : 1;
    if (count < needed)
        return kind::too_few_words;
    out = {};
    out.code = code;
    out.address = log_fields::hexadecimal(words[0]);
    switch (code) {
    case 'A':
        out.size = static_cast<SIZE>(log_fields::unsigned_number(words[1]));
        out.bt = static_cast<uint8>(log_fields::unsigned_number(words[2]));
        out.file = words[3];
        if (count > 4)
            out.line = static_cast<int32>(log_fields::signed_number(words[4]));
        return kind::record;
    case 'F':
        if (count > 1)
            out.bt = static_cast<uint8>(log_fields::unsigned_number(words[1]));
        return kind::record;
    case 'T':
        out.type_name = count > 1 ? words[1] : std::string_view("** type missing in memcheck file **");
        return kind::record;
    case 'E':
        return kind::no_meaning;
    default:
        return kind::unknown_code;
    }
}

namespace {

template <class SIZE>
void keep(const log_lines::mtrace_line<SIZE>& line, const char* text,
          log_lines::entry<log_lines::mtrace_line<SIZE>>& out) noexcept {
    out.address = line.address;
    out.size = line.size;
    out.caller_at = line.caller.empty() ? 0 : static_cast<uint32>(line.caller.data() - text);
    out.caller_size = static_cast<uint32>(line.caller.size());
    out.caller_id = 0;
    out.is_alloc = line.is_alloc;
    out.is_code_known = line.is_code_known;
}

template <class SIZE>
void keep(const log_lines::memcheck_line<SIZE>& line, const char*, log_lines::memcheck_line<SIZE>& out) noexcept {
    out = line;
}

} // namespace

template <class LINE>
uint32 log_lines::parse_lines(const char* text, const char*& next, const char* end, entry<LINE>* out, uint32 limit) {
    uint32 count = 0;
    while (count != limit && next != end) {
        entry<LINE>& each = out[count];
        kind what = kind::record;
        if (LINE canonical; parse_canonical_inline(next, canonical)) {
            keep(canonical, text, each);
        } else {
            LINE any;
            std::string_view line;
            log_fields::next_line(next, end, line);
            what = parse(line, any);
            keep(any, text, each);
        }
        each.kind = what;
        each.end = static_cast<uint32>(next - text);
        count += what != kind::no_meaning;
    }
    return count;
}

#define QOR_INSTANTIATE(line)                                                                                          \
    template log_lines::kind log_lines::parse(std::string_view, line&);                                                \
    template bool log_lines::parse_canonical(const char*&, line&);                                                     \
    template uint32 log_lines::parse_lines(const char*, const char*&, const char*, entry<line>*, uint32);

QOR_INSTANTIATE(log_lines::mtrace_line<uint32>)
QOR_INSTANTIATE(log_lines::mtrace_line<uint64>)
QOR_INSTANTIATE(log_lines::memcheck_line<uint32>)
QOR_INSTANTIATE(log_lines::memcheck_line<uint64>)
#undef QOR_INSTANTIATE

} // namespace qor::heap
