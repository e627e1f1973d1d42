// Numbers for the texts that a log repeats: callers, files and type names. Who parses its lines gives them out, and the
// replay knows a text by its number without a look at it, since it may lie in another processor's memory.
//
// Both sides only remember: a text without a number, or with one that is forgotten, is looked at. So neither takes more
// memory for a log with more texts.
#pragma once

#include "qor/system/Types.h"

#include <algorithm>
#include <memory>
#include <string_view>
#include <vector>

namespace qor::heap::text_numbers {

inline constexpr uint32 none = 0;

// As many texts are remembered by each side.
inline constexpr uint32 limit = 4096;

// How many may give out numbers for one log.
inline constexpr uint32 givers = 2;

// The side that parses.
class giver {
public:
    // No two have one number in common.
    explicit giver(uint32 which) : m_next(givers + which) {}

    // The memory for all that is remembered, which the first text takes where nobody has before.
    void make();

    // The number that this text has, and no other one ever; or none.
    uint32 of(std::string_view text);

private:
    struct cell {
        uint32 hash;
        uint32 number; // none: nobody
        uint32 at;     // in m_texts
        uint32 size;
    };

    static constexpr uint32 mask = 2 * limit - 1;
    // Texts can be written to collide, so that no search may be long.
    static constexpr uint32 longest_search = 8;
    static constexpr std::size_t room = 512 * 1024;
    static constexpr std::size_t longest = 4096;

    bool is(const cell& known, std::string_view text) const noexcept;
    uint32 remember(cell& free, uint32 hash, std::string_view text) noexcept;
    void forget() noexcept;

    std::vector<cell> m_cells;
    // Not cleared: what nobody uses takes no memory.
    std::unique_ptr<char[]> m_texts;
    std::size_t m_used = 0;
    uint32 m_count = 0;
    uint32 m_next; // none is given twice
};

// The replay's side: what the numbers of one log stand for there.
class taker {
public:
    // What stands beside a text may change what it means. `make()` tells what is not remembered.
    template <class MAKE>
    uint32 of(uint32 number, uint32 beside, MAKE make) {
        if (number == none)
            return make();
        if (m_cells.empty())
            m_cells.resize(count);
        cell& each = m_cells[number % count];
        if (each.number != number || each.beside != beside)
            each = {number, beside, make()};
        return each.meaning;
    }

    void forget() { std::fill(m_cells.begin(), m_cells.end(), cell{}); }

private:
    struct cell {
        uint32 number = none;
        uint32 beside = 0;
        uint32 meaning = 0;
    };

    static constexpr uint32 count = givers * limit;

    std::vector<cell> m_cells;
};

} // namespace qor::heap::text_numbers
