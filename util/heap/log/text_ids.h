// Ids for the texts that a log repeats: callers, files and type names. The parser assigns them. The replay then
// recognises a text by its id and need not read the bytes, which may be in another processor's cache.
//
// Ids are only a shortcut. Both sides remember the last few thousand texts. A text without an id, or with a forgotten
// one, is compared by its bytes. So memory does not grow with the number of texts in a log.
#pragma once

#include "qor/system/Types.h"

#include <algorithm>
#include <memory>
#include <string_view>
#include <vector>

namespace qor::heap::text_ids {

inline constexpr uint32 none = 0;

// Each side remembers this many texts.
inline constexpr uint32 limit = 4096;

// A log has at most this many assigners.
inline constexpr uint32 assigners = 2;

// The parser's side. Belongs to one thread.
class assigner {
public:
    // `which` counts the assigners of a log from 0. No two of them assign the same id.
    explicit assigner(uint32 which) : m_next(assigners + which) {}

    // The texts get no ids, that is, `none`.
    void leave_out() noexcept { m_is_left_out = true; }
    bool is_left_out() const noexcept { return m_is_left_out; }

    // Allocates the memory for all texts now; otherwise the first call of of() does.
    void make();

    // Returns the id of the text, or `none`. No other text ever gets the same id.
    uint32 of(std::string_view text);

private:
    struct cell {
        uint32 hash;
        uint32 id; // none: the cell is free
        uint32 at; // in m_texts
        uint32 size;
    };

    static constexpr uint32 mask = 2 * limit - 1;
    // A log may contain texts that were chosen to collide, so the search is bounded.
    static constexpr uint32 longest_search = 8;
    static constexpr std::size_t text_bytes = 512 * 1024;
    static constexpr std::size_t longest = 4096;

    bool is(const cell& known, std::string_view text) const noexcept;
    uint32 remember(cell& free, uint32 hash, std::string_view text) noexcept;
    void forget() noexcept;

    std::vector<cell> m_cells;
    // Not cleared, so unused pages take no memory.
    std::unique_ptr<char[]> m_texts;
    std::size_t m_used = 0;
    uint32 m_count = 0;
    uint32 m_next; // ids are never reused
    bool m_is_left_out = false;
};

// The replay's side: the meanings of the ids of one log.
class cache {
public:
    // Returns the meaning of an id together with `beside`, the other data of the line. Calls `make()` for it if the
    // cache does not have it.
    template <class MAKE>
    uint32 of(uint32 id, uint32 beside, MAKE make) {
        if (id == none)
            return make();
        if (m_cells.empty())
            m_cells.resize(count);
        cell& each = m_cells[id % count];
        if (each.id != id || each.beside != beside)
            each = {id, beside, make()};
        return each.meaning;
    }

    void forget() { std::fill(m_cells.begin(), m_cells.end(), cell{}); }

private:
    struct cell {
        uint32 id = none;
        uint32 beside = 0;
        uint32 meaning = 0;
    };

    static constexpr uint32 count = assigners * limit;

    std::vector<cell> m_cells;
};

} // namespace qor::heap::text_ids
