// The course of the live bytes over a run of any length, in bounded memory: the extremes of parts of equal length. When
// there are too many parts, each two become one.
#pragma once

#include "profile.h"
#include "qor/system/Types.h"

#include <vector>

namespace qor::heap {

class timeline {
public:
    using moment = profile::moment;

    static constexpr std::size_t most_parts = profile::most_moments / 2 - 2;

    // The state after one more record. Returns true if a new peak is reached, that is, more bytes than ever.
    template <class TIME>
    bool add(const profile::counts& live, TIME time) {
        if (m_records++ == m_part_end) [[unlikely]]
            begin_part(live, time());
        else if (live.bytes > m_part.most.live.bytes)
            m_part.most = {time(), m_records, live};
        else if (live.bytes < m_part.least.live.bytes)
            m_part.least = {time(), m_records, live};
        if (live.bytes <= m_peak)
            return false;
        m_peak = live.bytes;
        return true;
    }

    uint64 records() const noexcept { return m_records; }

    // The extremes of each part, the first of equal ones, and the end; in order and each once. The peak is one of them.
    std::vector<moment> moments(const moment& end) const;

    // The first moment with the most bytes. All zero if there was none.
    moment peak() const;

private:
    struct part {
        moment least;
        moment most;
    };

    void begin_part(const profile::counts& live, uint64 time);

    uint64 m_records = 0;
    uint64 m_part_end = 0;     // records before the next part
    uint64 m_length = 1;       // of a part, in records
    uint64 m_peak = 0;         // bytes
    part m_part;               // the last one, if there were records
    std::vector<part> m_parts; // that are over
};

} // namespace qor::heap
