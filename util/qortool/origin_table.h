// Where blocks came from: every combination of caller, block type, type name, file and line is kept once and
// named by a number, so that a slot of the table needs four bytes for it.
#pragma once

#include "qor/system/Types.h"

#include <deque>
#include <string_view>
#include <vector>

class origin_table {
public:
    // The texts live as long as the table. Each is followed by a NUL.
    struct origin {
        std::string_view caller;
        std::string_view type_name;
        std::string_view file;
        int32 line = 0;
        uint8 type = 0;
    };

    origin_table();

    // The number of an origin of which no more is known than its caller: the usual case, one look-up.
    uint32 of_caller(std::string_view caller);
    uint32 of(const origin& wanted);

    origin get(uint32 number) const;

private:
    static constexpr uint32 none = 0xffffffff;

    struct text_record {
        const char* text;
        uint32 length;
        uint32 as_caller; // the origin that has only this caller, or none
    };

    struct origin_record {
        uint32 caller; // numbers of texts
        uint32 type_name;
        uint32 file;
        int32 line;
        uint8 type;
        bool operator==(const origin_record&) const = default;
    };

    // Open addressing over the numbers of records: a power of two of cells, at most half of them used.
    class index {
    public:
        // The number with this hash for which `equal` holds, or none.
        template <class EQUAL>
        uint32 find(uint32 hash, EQUAL equal) const;
        void add(uint32 hash, uint32 number);

    private:
        struct cell {
            uint32 hash;
            uint32 number;
        };

        void put(cell added) noexcept;

        std::vector<cell> m_cells = std::vector<cell>(64, cell{0, none});
        std::size_t m_used = 0;
    };

    static uint32 hash_of(const origin_record& record) noexcept;
    const char* keep(std::string_view text);
    uint32 text_number(std::string_view text);
    uint32 record_number(const origin_record& record);

    std::vector<text_record> m_texts;
    index m_text_index;
    std::vector<origin_record> m_records;
    index m_record_index;

    // The bytes of the texts, in pieces that never move.
    std::deque<std::vector<char>> m_pieces;
    std::size_t m_piece_left = 0;
};
