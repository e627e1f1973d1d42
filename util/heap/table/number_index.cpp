#include "number_index.h"

#include <bit>

namespace qor::heap {

void number_index::remove(cell* found) noexcept {
    std::size_t gap = static_cast<std::size_t>(found - m_cells.data());
    for (std::size_t next = gap;;) {
        next = (next + 1) & mask();
        const cell& each = m_cells[next];
        if (each.number == none)
            break;
        const std::size_t home = each.hash & mask();
        if (((next - home) & mask()) >= ((next - gap) & mask())) {
            m_cells[gap] = each;
            gap = next;
        }
    }
    m_cells[gap].number = none;
    --m_used;
}

void number_index::put(cell added) noexcept {
    std::size_t at = added.hash & mask();
    while (m_cells[at].number != none)
        at = (at + 1) & mask();
    m_cells[at] = added;
}

void number_index::reserve(std::size_t more) {
    const std::size_t cells = std::bit_ceil((m_used + more) * 4 / 3 + 1);
    if (cells > m_cells.size())
        enlarge(cells);
}

void number_index::enlarge(std::size_t cells) {
    const std::vector<cell> old = std::exchange(m_cells, std::vector<cell>(cells, cell{0, none}));
    for (const cell& each : old)
        if (each.number != none)
            put(each);
}

} // namespace qor::heap
