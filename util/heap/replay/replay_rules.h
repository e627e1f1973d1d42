// What a program that replays heap logs chooses. A replay takes one of these structures, or one like them.
#pragma once

#include "qor/system/Types.h"

namespace qor::heap {

// How an mtrace log is joined with an allocation log of the same run. Either way the look-ahead is bounded
// (look_ahead_list), and each record has one partner at most.
enum class join_rule : uint8 {
    // An allocation takes every record of its address within reach, also those of later blocks at that address; the
    // last record of each kind counts.
    greedy,

    // An allocation takes the records of one block: the next allocation record of its address, if that has the same
    // size, and the type records up to the block's end. Records without a partner that lie far behind the last
    // one with a partner leave the look-ahead, so that they do not fill it.
    in_time,
};

// The fixed reports: sizes are cut to 32 bits.
struct fixed_report_rules {
    using size = uint32;
    static constexpr join_rule join = join_rule::greedy;
};

struct exact_rules {
    using size = uint64;
    static constexpr join_rule join = join_rule::in_time;
};

} // namespace qor::heap
