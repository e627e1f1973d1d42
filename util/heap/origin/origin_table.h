// The origins of blocks: every combination of caller, block type, type name, file, line and stack is stored once and
// has a number, so that a slot of the table needs four bytes for it.
#pragma once

#include "heap/table/number_index.h"

#include <deque>
#include <string_view>
#include <vector>

namespace qor::heap {

class origin_table {
public:
    // Everything known about a block. Texts are given by number; 0 is the empty text.
    struct origin {
        uint32 caller = 0;
        uint32 type_name = 0;
        uint32 file = 0;
        int32 line = 0;
        uint8 type = 0;
        uint32 stack = 0; // as the sink numbers it; 0: unknown
        bool operator==(const origin&) const = default;
    };

    origin_table();

    // From so many origins or texts on, every other one is the unknown origin, or the empty text: number 0.
    void set_limit(uint32 most) noexcept { m_most = most; }
    bool is_full() const noexcept { return m_is_full; }

    uint32 text(std::string_view text);

    // The text as it is printed, up to its first NUL. It lives as long as the table.
    std::string_view printed(uint32 text) const { return {m_texts[text].text, m_texts[text].printed_length}; }

    // Returns the number of an origin with only a caller. This is the usual case, with one look-up.
    uint32 of_caller(std::string_view caller);
    uint32 of(const origin& wanted);

    // The same for an origin that the table does not have, without a look-up. of() does not find it.
    uint32 add(const origin& unknown);

    const origin& get(uint32 number) const { return m_origins[number]; }
    uint32 count() const noexcept { return static_cast<uint32>(m_origins.size()); }

    // Return the number in this table for a text or origin of another table, which is added if necessary.
    uint32 adopt_text(const origin_table& other, uint32 text);
    uint32 adopt(const origin_table& other, uint32 number);

    // Returns the approximate memory use of the table.
    std::size_t bytes() const noexcept { return m_bytes; }

private:
    struct text_record {
        const char* text;
        uint32 length;
        uint32 printed_length;
        uint32 as_caller; // the origin with only this caller, or none
    };

    bool has_room(std::size_t used) noexcept {
        m_is_full |= used >= m_most;
        return used < m_most;
    }
    std::string_view whole(const text_record& record) const { return {record.text, record.length}; }
    const char* keep(std::string_view text);

    std::vector<text_record> m_texts;
    number_index m_text_index;
    std::vector<origin> m_origins;
    number_index m_origin_index;

    // The bytes of the texts, in chunks that never move.
    std::deque<std::vector<char>> m_pieces;
    std::size_t m_piece_left = 0;
    std::size_t m_bytes = 0;
    uint32 m_most = number_index::none;
    bool m_is_full = false;
};

} // namespace qor::heap
