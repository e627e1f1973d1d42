// Counts the blocks of each place at the end, at the peak and over the run, in one pass over the records.
//
// Nothing is copied when a new peak is reached. A place that changes for the first time since the peak remembers what
// it had until then: that is what it had at the peak. The same step closes the parts of the run behind it.
#pragma once

#include "heap/table/piecewise.h"
#include "profile.h"
#include "qor/system/Types.h"

#include <array>

namespace qor::heap {

class place_tallies {
public:
    using counts = profile::counts;

    place_tallies() { m_histories.grow(1); }

    // Places are numbered from 0; the table grows to the largest number.
    void allocate(uint32 place, uint64 size) {
        tally& to = current(place);
        to.live.bytes += size;
        ++to.live.blocks;
        to.allocated.bytes += size;
        ++to.allocated.blocks;
    }

    // Of a block that this place allocated.
    void release(uint32 place, uint64 size) {
        tally& from = current(place);
        from.live.bytes -= size;
        --from.live.blocks;
        if (from.live.bytes < from.least)
            from.least = from.live.bytes;
    }

    void add_temporary(uint32 place, uint64 size) {
        m_temporary[place].bytes += size;
        ++m_temporary[place].blocks;
    }

    // A live block belongs to another place from now on. The peak stays as it was.
    void move(uint32 from, uint32 to, uint64 size);

    // The state after the last change is a new peak.
    void set_peak() noexcept { m_stamp += one_peak; }

    // The run goes on with another part of it, the next one.
    void begin_part();

    struct result {
        counts live, at_peak, allocated, temporary;
        profile::growth growth;
    };
    result of(uint32 place);
    result sums_of(uint32 place); // the same without the growth
    uint32 count() const noexcept { return static_cast<uint32>(m_tallies.size()); }

    // The run is divided into `most_parts` / 2 to `most_parts` parts. When they are used up, each two become one.
    static constexpr uint32 most_parts = 16;

private:
    // The least bytes that were live in each part that is over.
    using history = std::array<uint64, most_parts>;
    static constexpr uint32 no_history = 0; // all of it is 0

    // Of the number of the last peak, and of the part of the run, at a place's last change.
    static constexpr uint64 one_peak = most_parts;
    static constexpr uint64 part_mask = most_parts - 1;

    struct alignas(64) tally {
        counts live;
        counts at_peak;
        counts allocated;
        uint64 least = 0; // bytes, in the part of the stamp
        uint64 stamp = 0;
    };
    static_assert(sizeof(tally) == 64);

    tally& current(uint32 place) {
        if (place >= m_tallies.size()) [[unlikely]]
            enlarge(place);
        tally& found = m_tallies[place];
        if (found.stamp != m_stamp)
            bring_up_to_date(place, found);
        return found;
    }

    void enlarge(uint32 place);
    void bring_up_to_date(uint32 place, tally& of) {
        if (of.stamp / one_peak != m_stamp / one_peak)
            of.at_peak = of.live;
        if ((of.stamp & part_mask) != (m_stamp & part_mask))
            close_parts(place, of, static_cast<uint32>(m_stamp & part_mask));
        of.stamp = m_stamp;
    }
    void close_parts(uint32 place, tally& of, uint32 now);
    profile::growth growth_of(uint32 place, const tally& of) const;

    piecewise<tally> m_tallies;
    piecewise<counts> m_temporary;
    piecewise<uint32> m_history_of;
    piecewise<history> m_histories;
    uint64 m_stamp = one_peak; // so that the stamp of a new place is out of date
};

} // namespace qor::heap
