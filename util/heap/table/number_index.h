// Finds objects that are identified by numbers. It uses open addressing over (hash, number), with a power of two of
// cells, of which at most three quarters are used. Only the user of the index knows the meaning of a number.
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
        uint32 number; // the user may store another number with the same hash here
    };

    static constexpr std::size_t cell_bytes = 2 * sizeof(cell); // average memory per number

    // Returns the cell with this hash for which `equal(number)` is true, or null. The pointer is valid until something
    // is added or removed.
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
            enlarge(m_cells.size() * 2);
        put({hash, number});
    }

    // Makes room for so many more numbers at once.
    void reserve(std::size_t more);

    void prefetch(uint32 hash) const noexcept { __builtin_prefetch(&m_cells[hash & mask()]); }

    // Moves later cells up, so that no gap makes them unreachable.
    void remove(cell* found) noexcept;

private:
    std::size_t mask() const noexcept { return m_cells.size() - 1; }
    void put(cell added) noexcept;
    void enlarge(std::size_t cells);

    std::vector<cell> m_cells = std::vector<cell>(64, cell{0, none});
    std::size_t m_used = 0;
};

} // namespace qor::heap
