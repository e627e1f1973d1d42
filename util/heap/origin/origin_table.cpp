#include "origin_table.h"

#include "heap/table/hashing.h"

#include <algorithm>
#include <cstring>

namespace qor::heap {

namespace {

constexpr std::size_t piece_size = 64 * 1024;

uint32 hash_of(const origin_table::origin& origin) noexcept {
    uint64 state = hashing::mix(hashing::key ^ origin.type ^ uint64{origin.stack} << 8,
                                uint64{origin.caller} << 32 | origin.type_name);
    state = hashing::mix(state, uint64{origin.file} << 32 | static_cast<uint32>(origin.line));
    return hashing::finish(state);
}

std::size_t length_to_nul(std::string_view text) noexcept { return std::min(text.find('\0'), text.size()); }

} // namespace

// Number 0 is the empty text, and also the unknown origin.
origin_table::origin_table() { of_caller({}); }

uint32 origin_table::of_caller(std::string_view caller) {
    const uint32 number = text(caller);
    if (m_texts[number].as_caller == number_index::none)
        m_texts[number].as_caller = of({.caller = number});
    return m_texts[number].as_caller;
}

const char* origin_table::keep(std::string_view text) {
    if (m_piece_left < text.size()) {
        m_piece_left = std::max(text.size(), piece_size);
        m_pieces.emplace_back(m_piece_left);
        m_bytes += m_piece_left;
    }
    if (text.empty())
        return "";
    std::vector<char>& piece = m_pieces.back();
    char* const kept = piece.data() + (piece.size() - m_piece_left);
    std::copy(text.begin(), text.end(), kept);
    m_piece_left -= text.size();
    return kept;
}

uint32 origin_table::text(std::string_view text) {
    const uint32 hash = hashing::of_text(text);
    if (const number_index::cell* const found =
            m_text_index.find(hash, [&](uint32 number) { return whole(m_texts[number]) == text; }))
        return found->number;
    if (!has_room(m_texts.size()))
        return 0;
    const uint32 number = static_cast<uint32>(m_texts.size());
    m_texts.push_back(
        {keep(text), static_cast<uint32>(text.size()), static_cast<uint32>(length_to_nul(text)), number_index::none});
    m_text_index.add(hash, number);
    m_bytes += sizeof(text_record) + number_index::cell_bytes;
    return number;
}

uint32 origin_table::of(const origin& wanted) {
    const uint32 hash = hash_of(wanted);
    if (const number_index::cell* const found =
            m_origin_index.find(hash, [&](uint32 number) { return m_origins[number] == wanted; }))
        return found->number;
    const uint32 number = add(wanted);
    if (number == 0 && count() != 1)
        return 0;
    m_origin_index.add(hash, number);
    m_bytes += number_index::cell_bytes;
    return number;
}

uint32 origin_table::add(const origin& unknown) {
    if (!has_room(m_origins.size()))
        return 0;
    m_origins.push_back(unknown);
    m_bytes += sizeof(origin);
    return count() - 1;
}

uint32 origin_table::adopt_text(const origin_table& other, uint32 number) {
    return text(other.whole(other.m_texts[number]));
}

uint32 origin_table::adopt(const origin_table& other, uint32 number) {
    origin own = other.get(number);
    own.caller = adopt_text(other, own.caller);
    own.type_name = adopt_text(other, own.type_name);
    own.file = adopt_text(other, own.file);
    return of(own);
}

} // namespace qor::heap
