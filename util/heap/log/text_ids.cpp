#include "text_ids.h"

#include "heap/table/hashing.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qor::heap {

namespace {

// Returns true if `size` bytes are equal.
bool are_same(const char* one, const char* other, std::size_t size) noexcept;

#if defined(__SSE2__)

// The last step overlaps the one before it. The texts of one log have about the same length, so the number of steps is
// predictable.
bool are_same(const char* one, const char* other, std::size_t size) noexcept {
    if (size < 16)
        return std::memcmp(one, other, size) == 0;
    const auto difference = [one, other](std::size_t at) {
        return _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(one + at)),
                             _mm_loadu_si128(reinterpret_cast<const __m128i*>(other + at)));
    };
    __m128i any = difference(size - 16);
    for (std::size_t at = 0; at + 16 < size; at += 16)
        any = _mm_or_si128(any, difference(at));
    return _mm_movemask_epi8(_mm_cmpeq_epi8(any, _mm_setzero_si128())) == 0xffff;
}

#else

bool are_same(const char* one, const char* other, std::size_t size) noexcept {
    return std::memcmp(one, other, size) == 0;
}

#endif

} // namespace

uint32 text_ids::assigner::of(std::string_view text) {
    if (text.empty() || text.size() > longest)
        return none;
    if (m_cells.empty())
        make();
    const uint32 hash = text.size() < 16 ? hashing::of_text(text) : hashing::of_end(text);
    for (uint32 i = 0; i < longest_search; ++i) {
        cell& each = m_cells[(hash + i) & mask];
        if (each.id == none)
            return remember(each, hash, text);
        if (each.hash == hash && is(each, text))
            return each.id;
    }
    return none;
}

bool text_ids::assigner::is(const cell& known, std::string_view text) const noexcept {
    return known.size == text.size() && are_same(m_texts.get() + known.at, text.data(), text.size());
}

uint32 text_ids::assigner::remember(cell& free, uint32 hash, std::string_view text) noexcept {
    if (m_next > std::numeric_limits<uint32>::max() - assigners)
        return none;
    if (m_count == limit || text_bytes - m_used < text.size())
        forget();
    text.copy(m_texts.get() + m_used, text.size());
    const uint32 id = std::exchange(m_next, m_next + assigners);
    free = {hash, id, static_cast<uint32>(m_used), static_cast<uint32>(text.size())};
    m_used += text.size();
    ++m_count;
    return id;
}

void text_ids::assigner::make() {
    m_cells.resize(mask + 1);
    m_texts.reset(new char[text_bytes]);
}

void text_ids::assigner::forget() noexcept {
    std::fill(m_cells.begin(), m_cells.end(), cell{});
    m_used = 0;
    m_count = 0;
}

} // namespace qor::heap
