#include "origin_table.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

constexpr std::size_t piece_size = 64 * 1024;

constexpr uint64 multiplier = 0x9e3779b97f4a7c15; // 2^64 / golden ratio

uint64 mix(uint64 state, uint64 word) noexcept {
    state = (state ^ word) * multiplier;
    return state ^ (state >> 29);
}

uint32 finish(uint64 state) noexcept { return static_cast<uint32>((state * multiplier) >> 32); }

// Eight bytes a step; the last step of a long text overlaps the one before it.
uint32 hash_text(std::string_view text) noexcept {
    const char* at = text.data();
    std::size_t left = text.size();
    uint64 state = left;
    uint64 word = 0;
    if (left < 8) {
        if (left != 0)
            std::memcpy(&word, at, left);
        return finish(mix(state, word));
    }
    for (; left > 8; at += 8, left -= 8) {
        std::memcpy(&word, at, 8);
        state = mix(state, word);
    }
    std::memcpy(&word, at + left - 8, 8);
    return finish(mix(state, word));
}

} // namespace

template <class EQUAL>
uint32 origin_table::index::find(uint32 hash, EQUAL equal) const {
    const std::size_t mask = m_cells.size() - 1;
    for (std::size_t at = hash & mask;; at = (at + 1) & mask) {
        const cell& each = m_cells[at];
        if (each.number == none || (each.hash == hash && equal(each.number)))
            return each.number;
    }
}

void origin_table::index::add(uint32 hash, uint32 number) {
    if (++m_used * 2 > m_cells.size()) {
        const std::vector<cell> old = std::exchange(m_cells, std::vector<cell>(m_cells.size() * 2, cell{0, none}));
        for (const cell& each : old)
            if (each.number != none)
                put(each);
    }
    put({hash, number});
}

void origin_table::index::put(cell added) noexcept {
    const std::size_t mask = m_cells.size() - 1;
    std::size_t at = added.hash & mask;
    while (m_cells[at].number != none)
        at = (at + 1) & mask;
    m_cells[at] = added;
}

// Number 0 is the empty text, and the origin of which nothing is known.
origin_table::origin_table() { of_caller({}); }

uint32 origin_table::of_caller(std::string_view caller) {
    const uint32 text = text_number(caller);
    if (m_texts[text].as_caller == none)
        m_texts[text].as_caller = record_number({text, 0, 0, 0, 0});
    return m_texts[text].as_caller;
}

uint32 origin_table::of(const origin& wanted) {
    const uint32 caller = text_number(wanted.caller);
    const uint32 type_name = text_number(wanted.type_name);
    const uint32 file = text_number(wanted.file);
    return record_number({caller, type_name, file, wanted.line, wanted.type});
}

origin_table::origin origin_table::get(uint32 number) const {
    const origin_record& record = m_records[number];
    const auto text = [this](uint32 which) {
        return std::string_view(m_texts[which].text, m_texts[which].length);
    };
    return {text(record.caller), text(record.type_name), text(record.file), record.line, record.type};
}

uint32 origin_table::hash_of(const origin_record& record) noexcept {
    uint64 state = mix(record.type, uint64{record.caller} << 32 | record.type_name);
    state = mix(state, uint64{record.file} << 32 | static_cast<uint32>(record.line));
    return finish(state);
}

const char* origin_table::keep(std::string_view text) {
    const std::size_t size = text.size() + 1;
    if (m_piece_left < size) {
        m_piece_left = std::max(size, piece_size);
        m_pieces.emplace_back(m_piece_left);
    }
    std::vector<char>& piece = m_pieces.back();
    char* const kept = piece.data() + (piece.size() - m_piece_left);
    std::copy(text.begin(), text.end(), kept);
    kept[text.size()] = '\0';
    m_piece_left -= size;
    return kept;
}

uint32 origin_table::text_number(std::string_view text) {
    const uint32 hash = hash_text(text);
    const uint32 found = m_text_index.find(hash, [&](uint32 number) {
        const text_record& known = m_texts[number];
        return std::string_view(known.text, known.length) == text;
    });
    if (found != none)
        return found;
    const uint32 number = static_cast<uint32>(m_texts.size());
    m_texts.push_back({keep(text), static_cast<uint32>(text.size()), none});
    m_text_index.add(hash, number);
    return number;
}

uint32 origin_table::record_number(const origin_record& record) {
    const uint32 hash = hash_of(record);
    const uint32 found =
        m_record_index.find(hash, [&](uint32 number) { return m_records[number] == record; });
    if (found != none)
        return found;
    const uint32 number = static_cast<uint32>(m_records.size());
    m_records.push_back(record);
    m_record_index.add(hash, number);
    return number;
}
