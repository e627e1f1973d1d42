// Where blocks came from: every combination of caller, block type, type name, file and line is kept once and
// named by a number, so that a slot of the table needs four bytes for it.
#pragma once

#include "heap/table/number_index.h"

#include <deque>
#include <string_view>
#include <vector>

namespace qor::heap {

class origin_table {
public:
    // What is known of a block; texts by their numbers, of which 0 is the empty text.
    struct origin {
        uint32 caller = 0;
        uint32 type_name = 0;
        uint32 file = 0;
        int32 line = 0;
        uint8 type = 0;
        bool operator==(const origin&) const = default;
    };

    origin_table();

    uint32 text(std::string_view text);

    // As it is printed: a NUL ends it. Lives as long as the table.
    std::string_view printed(uint32 text) const { return {m_texts[text].text, m_texts[text].printed_length}; }

    // The number of an origin of which no more is known than its caller: the usual case, one look-up.
    uint32 of_caller(std::string_view caller);
    uint32 of(const origin& wanted);

    const origin& get(uint32 number) const { return m_origins[number]; }
    uint32 count() const noexcept { return static_cast<uint32>(m_origins.size()); }

    // The same text or origin in this table, for one of another table.
    uint32 adopt_text(const origin_table& other, uint32 text);
    uint32 adopt(const origin_table& other, uint32 number);

    // About how much memory the table takes.
    std::size_t bytes() const noexcept { return m_bytes; }

private:
    struct text_record {
        const char* text;
        uint32 length;
        uint32 printed_length;
        uint32 as_caller; // the origin that has only this caller, or none
    };

    std::string_view whole(const text_record& record) const { return {record.text, record.length}; }
    const char* keep(std::string_view text);

    std::vector<text_record> m_texts;
    number_index m_text_index;
    std::vector<origin> m_origins;
    number_index m_origin_index;

    // The bytes of the texts, in pieces that never move.
    std::deque<std::vector<char>> m_pieces;
    std::size_t m_piece_left = 0;
    std::size_t m_bytes = 0;
};

} // namespace qor::heap
