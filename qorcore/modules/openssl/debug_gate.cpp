#include "debug_gate.h"

#include <algorithm>

bool qor::control::gate::enter(const std::string& neighbour) {
    const bool near_full = m_waiting >= room_at_ease;
    if (m_waiting >= room || (near_full && m_lot(room - room_at_ease + 1) <= m_waiting - room_at_ease))
        return false;
    if (m_neighbours.size() >= neighbours)
        make_room();
    record& of = m_neighbours[neighbour];
    if (of.waiting >= room_per_neighbour)
        return false;
    ++of.waiting;
    ++m_waiting;
    return true;
}

void qor::control::gate::leave(const std::string& neighbour) {
    const auto at = m_neighbours.find(neighbour);
    --at->second.waiting;
    --m_waiting;
    drop_if_empty(at);
}

bool qor::control::gate::take_try(const std::string& neighbour, moment now) {
    record& of = m_neighbours[neighbour];
    if (of.tries.size() == tries && now - of.tries.front() < period)
        return false;
    if (of.tries.size() == tries)
        of.tries.erase(of.tries.begin());
    of.tries.push_back(now);
    return true;
}

qor::control::moment qor::control::gate::next_try(const std::string& neighbour) const {
    const auto at = m_neighbours.find(neighbour);
    return at != m_neighbours.end() && at->second.tries.size() == tries ? at->second.tries.front() + period : moment();
}

void qor::control::gate::give_back_try(const std::string& neighbour) {
    const auto at = m_neighbours.find(neighbour);
    if (at == m_neighbours.end() || at->second.tries.empty())
        return;
    at->second.tries.pop_back();
    drop_if_empty(at);
}

void qor::control::gate::forget(moment now) {
    for (auto at = m_neighbours.begin(); at != m_neighbours.end();) {
        std::erase_if(at->second.tries, [now](moment made) { return now - made >= period; });
        drop_if_empty(at++);
    }
}

void qor::control::gate::make_room() {
    const auto gone = std::find_if(m_neighbours.begin(), m_neighbours.end(),
                                   [](const auto& each) { return each.second.waiting == 0; });
    if (gone != m_neighbours.end())
        m_neighbours.erase(gone);
}

void qor::control::gate::drop_if_empty(std::map<std::string, record>::iterator at) {
    if (at->second.waiting == 0 && at->second.tries.empty())
        m_neighbours.erase(at);
}
