// Inside the library: a sorted sequence of ranges, the content of a block tracker.
//
// The ranges lie in leaves of up to 512. Beside them stand, in arrays of their own, the first place of each leaf, which
// a search halves; the largest gap before a range of the leaf; and the largest of these gaps for each 64 leaves. So a
// search for a gap looks at one entry in 64 * 512 ranges, and then at one block and one leaf. A leaf grows by an eighth
// and is merged with a neighbour when it is small, so the ranges take about 18 bytes each.
#pragma once

#include "qor/qor.h"

#include <vector>

namespace qor::container {

class block_ranges {
public:
    uint64 count() const noexcept { return m_count; }

    // Takes or frees places; return whether that changed anything. first <= last.
    bool add(qorBlockRange range) noexcept;
    bool remove(qorBlockRange range) noexcept;

    bool are_taken(qorBlockRange range) const noexcept;
    bool any_taken(qorBlockRange range) const noexcept;
    bool find_gap(uint64 size, uint64 from, uint64& first) const noexcept;
    uint64 get(uint64 from, qorBlockRange* ranges, uint64 room) const noexcept;

    // Builds the sequence in ascending order: adds a range behind all others. Ranges that touch become one. finish()
    // must follow the last one.
    void append(qorBlockRange range) noexcept;
    void finish() noexcept;

private:
    using leaf = std::vector<qorBlockRange>;

    // Where a range stands. At the end, the leaf is the number of leaves and the index is 0.
    struct place {
        std::size_t leaf;
        std::size_t index;
        friend bool operator==(const place&, const place&) noexcept = default;
    };

    place end() const noexcept { return {m_leaves.size(), 0}; }
    const qorBlockRange& at(place where) const noexcept { return m_leaves[where.leaf][where.index]; }
    place next(place where) const noexcept;
    // The first range that ends at or behind a place.
    place ending_behind(uint64 from) const noexcept;

    // Puts `pieces` in place of the ranges from `begin` up to `end`.
    void replace(place begin, place end, const qorBlockRange* pieces, std::size_t count) noexcept;
    // Makes leaf `index` fit: splits it if it is too long, joins it with the next one if both are short. Returns
    // whether the number of leaves has changed.
    bool balance(std::size_t index) noexcept;
    void erase_leaves(std::size_t begin, std::size_t end) noexcept;
    void insert_leaf(std::size_t index, leaf ranges) noexcept;
    // Recompute what stands beside a leaf, or beside all leaves and blocks from one on.
    void refresh(std::size_t index) noexcept;
    void refresh_blocks(std::size_t from) noexcept;
    uint64 gap_before(std::size_t index, std::size_t range) const noexcept;

    std::vector<leaf> m_leaves;       // none is empty
    std::vector<uint64> m_firsts;     // the first place of each leaf
    std::vector<uint64> m_gaps;       // the largest gap before a range of each leaf
    std::vector<uint64> m_block_gaps; // the largest gap in each 64 leaves
    uint64 m_count = 0;
};

} // namespace qor::container
