#include "timeline.h"

#include <algorithm>

namespace qor::heap {

void timeline::begin_part(const profile::counts& live, uint64 time) {
    if (m_records > 1)
        m_parts.push_back(m_part);
    if (m_parts.size() == most_parts) {
        for (std::size_t i = 0; i < most_parts / 2; ++i) {
            const part &first = m_parts[2 * i], &second = m_parts[2 * i + 1];
            m_parts[i] = {second.least.live.bytes < first.least.live.bytes ? second.least : first.least,
                          second.most.live.bytes > first.most.live.bytes ? second.most : first.most};
        }
        m_parts.resize(most_parts / 2);
        m_length *= 2;
    }
    m_part_end += m_length;
    m_part.least = m_part.most = {time, m_records, live};
}

std::vector<timeline::moment> timeline::moments(const moment& end) const {
    std::vector<moment> all;
    const auto add = [&all](const part& of) {
        const bool is_falling = of.most.records < of.least.records;
        all.push_back(is_falling ? of.most : of.least);
        if (of.most.records != of.least.records)
            all.push_back(is_falling ? of.least : of.most);
    };
    std::ranges::for_each(m_parts, add);
    if (m_records != 0)
        add(m_part);
    if (!all.empty() && all.back().records != end.records)
        all.push_back(end);
    return all;
}

timeline::moment timeline::peak() const {
    moment found;
    const auto look_at = [&found](const part& of) {
        if (of.most.live.bytes > found.live.bytes)
            found = of.most;
    };
    std::ranges::for_each(m_parts, look_at);
    look_at(m_part);
    return found;
}

} // namespace qor::heap
