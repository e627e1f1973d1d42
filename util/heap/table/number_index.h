// Finds things that are named by numbers: open addressing over (hash, number), a power of two of cells, at
// most three in four of them used. What a number stands for, only the user of the index knows.
#pragma once

#include "qor/system/Types.h"

#include <cstddef>
#include <utility>
#include <vector>

namespace qor::heap {

class number_index {
public:
    static constexpr uint32 none = 0xffffffff; // no number

    struct cell {
        uint32 hash;
        uint32 number; // the user may put another one with the same hash here
    };

    static constexpr std::size_t cell_bytes = 2 * sizeof(cell); // what a number takes, on average

    // The cell with this hash for whose number `equal` holds, or null. It stays until something is added or
    // removed.
    template <class EQUAL>
    cell* find(uint32 hash, EQUAL equal) noexcept {
        for (std::size_t at = hash & mask();; at = (at + 1) & mask()) {
            cell& each = m_cells[at];
            if (each.number == none)
                return nullptr;
            if (each.hash == hash && equal(each.number))
                return &each;
        }
    }

    void add(uint32 hash, uint32 number) {
        if (++m_used * 4 > m_cells.size() * 3)
            enlarge();
        put({hash, number});
    }

    void prefetch(uint32 hash) const noexcept { __builtin_prefetch(&m_cells[hash & mask()]); }

    // What was put behind the cell moves up, so that no gap cuts it off.
    void remove(cell* found) noexcept;

private:
    std::size_t mask() const noexcept { return m_cells.size() - 1; }
    void put(cell added) noexcept;
    void enlarge();

    std::vector<cell> m_cells = std::vector<cell>(64, cell{0, none});
    std::size_t m_used = 0;
};

} // namespace qor::heap
