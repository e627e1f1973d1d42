// Records of the allocation log that were read before the mtrace log asked for them: at most 1,024, in the order in
// which they were read. The first record for an address is taken first; a hash finds it.
#pragma once

#include "qor/system/Types.h"

#include <array>

namespace qor::heap {

// SIZE is the width of sizes: uint32 or uint64.
template <class SIZE>
class look_ahead_list {
public:
    static constexpr uint32 limit = 1024;

    // Texts are given by their numbers in the origin table.
    struct record {
        char code = '\0';
        uint8 bt = 0;
        uint64 address = 0;
        SIZE size = 0;
        int32 line = 0;
        uint32 file = 0;
        uint32 type_name = 0;
        uint32 sequence = 0; // position among all records ever appended, from 0; append() sets it
    };

    look_ahead_list();

    bool is_empty() const noexcept { return m_count == 0; }
    bool is_full() const noexcept { return m_count == limit; }
    uint32 count() const noexcept { return m_count; }

    // Requires that the list is not full.
    void append(const record& added) noexcept;

    // Takes the first record for the address out of the list. Returns false if there is none.
    bool take(uint64 address, record& out) noexcept;

    // Return the first record for the address, or the first of all, valid until the next call of append() or take().
    // Return null if there is none.
    const record* find(uint64 address) const noexcept;
    const record* first() const noexcept { return m_order.first != none ? &m_nodes[m_order.first].content : nullptr; }

    // Calls visit(record&) for each record, in order.
    template <class VISIT>
    void walk(VISIT visit) {
        for (uint16 at = m_order.first; at != none; at = m_nodes[at].next)
            visit(m_nodes[at].content);
    }

private:
    static constexpr uint16 none = 0xffff;
    static constexpr uint32 group_count = 2 * limit;

    struct node {
        record content;
        uint16 previous; // in the order of the list
        uint16 next;
        uint16 next_of_group; // in the same order, among those with the same hash; or among free nodes
    };

    struct ends {
        uint16 first = none;
        uint16 last = none;
    };

    static uint32 group_of(uint64 address) noexcept;
    void unlink(uint16 at) noexcept;

    std::array<node, limit> m_nodes;
    std::array<ends, group_count> m_groups;
    ends m_order;
    uint16 m_free = 0;
    uint32 m_count = 0;
    uint32 m_appended = 0; // records ever appended
};

} // namespace qor::heap
