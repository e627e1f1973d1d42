// The choices of a program that replays heap logs. A replay takes one of these structures, or a similar one.
#pragma once

#include "qor/system/Types.h"

namespace qor::heap {

// The way in which an mtrace log is joined with an allocation log of the same run. In both, the look-ahead is bounded
// (look_ahead_list), and each record has at most one partner.
enum class join_rule : uint8 {
    // An allocation takes every record for its address within reach, including those of later blocks at that address;
    // the last record of each kind counts.
    greedy,

    // An allocation takes the records of one block: the next allocation record for its address, if that has the same
    // size, and the type records up to the block's release. Records without a partner that lie far behind the last
    // joined one leave the look-ahead, so that they do not fill it.
    in_time,
};

// The fixed reports: sizes are cut to 32 bits.
struct fixed_report_rules {
    using size = uint32;
    static constexpr join_rule join = join_rule::greedy;
    static constexpr bool keeps_origins = false;
    static constexpr bool reads_in_thread = false;
};

struct exact_rules {
    using size = uint64;
    static constexpr join_rule join = join_rule::in_time;

    // Keep the numbers of origins valid for the whole replay. Otherwise those without a live block are dropped now and
    // then, so that memory does not follow the length of a log that names new callers all the time.
    static constexpr bool keeps_origins = false;

    // Begin to read the log, or the first of two, in a thread right away: the sink's before_wait() is then called again
    // and again while nothing can be read, and may end the replay by an exception. Otherwise a thread begins when the
    // log turns out to be long.
    static constexpr bool reads_in_thread = false;
};

} // namespace qor::heap
