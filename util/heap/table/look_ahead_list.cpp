#include "look_ahead_list.h"

#include "hashing.h"

namespace qor::heap {

look_ahead_list::look_ahead_list() {
    for (uint32 i = 0; i < limit; ++i)
        m_nodes[i].next_of_group = static_cast<uint16>(i + 1 < limit ? i + 1 : none);
}

uint32 look_ahead_list::group_of(uint64 address) noexcept { return hashing::of_address(address) % group_count; }

void look_ahead_list::append(const record& added) noexcept {
    const uint16 at = m_free;
    node& made = m_nodes[at];
    m_free = made.next_of_group;
    made = {added, m_order.last, none, none};
    (m_order.last != none ? m_nodes[m_order.last].next : m_order.first) = at;
    m_order.last = at;
    ends& group = m_groups[group_of(added.address)];
    (group.last != none ? m_nodes[group.last].next_of_group : group.first) = at;
    group.last = at;
    ++m_count;
}

bool look_ahead_list::take(uint64 address, record& out) noexcept {
    ends& group = m_groups[group_of(address)];
    uint16 before = none;
    for (uint16 at = group.first; at != none; before = at, at = m_nodes[at].next_of_group) {
        node& each = m_nodes[at];
        if (each.content.address != address)
            continue;
        out = each.content;
        (before != none ? m_nodes[before].next_of_group : group.first) = each.next_of_group;
        if (group.last == at)
            group.last = before;
        unlink(at);
        return true;
    }
    return false;
}

void look_ahead_list::unlink(uint16 at) noexcept {
    node& gone = m_nodes[at];
    (gone.previous != none ? m_nodes[gone.previous].next : m_order.first) = gone.next;
    (gone.next != none ? m_nodes[gone.next].previous : m_order.last) = gone.previous;
    gone.next_of_group = m_free;
    m_free = at;
    --m_count;
}

} // namespace qor::heap
