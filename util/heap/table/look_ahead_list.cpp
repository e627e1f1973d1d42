#include "look_ahead_list.h"

#include "hashing.h"

namespace qor::heap {

template <class SIZE>
look_ahead_list<SIZE>::look_ahead_list() {
    for (uint32 i = 0; i < limit; ++i)
        m_nodes[i].next_of_group = static_cast<uint16>(i + 1 < limit ? i + 1 : none);
}

template <class SIZE>
uint32 look_ahead_list<SIZE>::group_of(uint64 address) noexcept {
    return hashing::of_address(address) % group_count;
}

template <class SIZE>
void look_ahead_list<SIZE>::append(const record& added) noexcept {
    const uint16 at = m_free;
    node& made = m_nodes[at];
    m_free = made.next_of_group;
    made = {added, m_order.last, none, none};
    made.content.sequence = m_appended++;
    (m_order.last != none ? m_nodes[m_order.last].next : m_order.first) = at;
    m_order.last = at;
    ends& group = m_groups[group_of(added.address)];
    (group.last != none ? m_nodes[group.last].next_of_group : group.first) = at;
    group.last = at;
    ++m_count;
}

template <class SIZE>
bool look_ahead_list<SIZE>::take(uint64 address, record& out) noexcept {
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

template <class SIZE>
void look_ahead_list<SIZE>::unlink(uint16 at) noexcept {
    node& gone = m_nodes[at];
    (gone.previous != none ? m_nodes[gone.previous].next : m_order.first) = gone.next;
    (gone.next != none ? m_nodes[gone.next].previous : m_order.last) = gone.previous;
    gone.next_of_group = m_free;
    m_free = at;
    --m_count;
}

template <class SIZE>
const typename look_ahead_list<SIZE>::record* look_ahead_list<SIZE>::find(uint64 address) const noexcept {
    for (uint16 at = m_groups[group_of(address)].first; at != none; at = m_nodes[at].next_of_group)
        if (m_nodes[at].content.address == address)
            return &m_nodes[at].content;
    return nullptr;
}

template class look_ahead_list<uint32>;
template class look_ahead_list<uint64>;

} // namespace qor::heap
