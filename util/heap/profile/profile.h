// A recording's use of the heap by place: sums, stacks, and its course over the run. A profile is data; nothing here
// reads, resolves or prints.
//
// Texts come from the recording as they are: any byte except NUL, not necessarily UTF-8. Whoever shows them makes them
// harmless.
#pragma once

#include "qor/system/Types.h"

#include <string>
#include <vector>

namespace qor::heap {

struct profile {
    struct counts {
        uint64 bytes = 0;
        uint64 blocks = 0;

        bool operator==(const counts&) const = default;
        counts& operator+=(const counts& other) noexcept {
            bytes += other.bytes;
            blocks += other.blocks;
            return *this;
        }
    };

    // A file of code that was loaded. Several processes that load the same file share the module; base, begin and end
    // are then those of the first.
    struct module {
        std::string path;     // empty: unknown, as for the vdso
        std::string build_id; // its bytes, not hexadecimal; empty: the file has none, or the recording does not say
        uint64 base = 0;      // an address in memory minus this is the address in the file; 0 if unknown
        uint64 begin = 0;     // its mapping in memory, the end exclusive; both 0 if unknown
        uint64 end = 0;
    };

    struct frame {
        uint32 module = 0;  // 0: outside of every module
        uint64 address = 0; // to which the call returns, minus the module's base: the call is looked up at address - 1

        bool operator==(const frame&) const = default;
    };

    // The tree of stacks. A node is a stack: its frame is the innermost one, its parent the caller's stack. A parent
    // has a smaller number than its children. Node 0 is the empty stack. Equal stacks are one node.
    struct node {
        uint32 parent = 0;
        uint32 frame = 0;
    };

    // The course of a place's live bytes over the run, which is divided into parts of equal length.
    enum class growth : uint8 {
        none,    // nothing is live at the end, or the bytes went up and down
        once,    // what is live at the end was allocated in one part of the run, and stayed
        growing, // the least bytes live in a part rose again and again, up to the last part
    };

    // A distinct combination of stack, type, type name, file and line. A place without a known stack is distinct by its
    // caller in the log.
    struct place {
        uint32 node = 0;   // 0: the stack is unknown. Without recorded stacks, one frame that is made of the caller
        uint32 caller = 0; // numbers in `texts`; 0: no text
        uint32 type_name = 0;
        uint32 file = 0;
        int32 line = 0;
        uint8 type = 0; // the block type of an allocation log
        profile::growth growth = growth::none;

        counts live;      // at the end of the recording, or where it was stopped
        counts at_peak;   // when most bytes were live in the whole process
        counts allocated; // all over the run
        counts temporary; // of these, blocks that were released before the next record
    };

    // A point of the run. Moments are in the order of time.
    struct moment {
        uint64 time_ns = 0; // since the start of the first process; 0 throughout if the recording has no times
        uint64 records = 0; // of the log (allocations and releases) up to here, this one included
        counts live;

        bool operator==(const moment&) const = default;
    };

    // The numbers are 0, and the texts empty, where the recording does not tell them.
    struct process {
        uint64 pid = 0;
        uint64 parent = 0;
        uint64 start_ns = 0; // since 1970
        uint64 depth = 0;    // frames of a stack at most
        std::string path;    // of the program
        std::string recorder;
        std::string log; // the file's name as it was given
    };

    struct loss {
        uint64 records = 0;
        std::string reason;
    };

    // A release of a block that was not alive.
    struct bad_free {
        uint32 caller = 0; // a number in `texts`
        uint64 address = 0;
        uint64 records = 0; // as in a moment
    };

    struct sums {
        counts live;
        counts allocated;
        counts temporary;
        counts inherited; // blocks that a forked child began with; they are not in `allocated`
        moment peak;      // with several processes: the sum of the peaks of each, and no point of the run
        uint64 records = 0;
        uint64 bad_frees = 0;
        uint64 lost_records = 0;
    };

    // Number 0 of the first four is the absent one: no module, no frame, the empty stack, the empty text.
    std::vector<module> modules = std::vector<module>(1);
    std::vector<frame> frames = std::vector<frame>(1); // distinct
    std::vector<node> nodes = std::vector<node>(1);
    std::vector<std::string> texts = std::vector<std::string>(1);

    std::vector<place> places;    // those that have had a block
    std::vector<moment> timeline; // at most `most_moments`, with the extremes of each part of the run and the peak
    std::vector<process> processes;
    std::vector<loss> losses;
    std::vector<bad_free> bad_frees; // the first `most_bad_frees`; the sums count all
    sums totals;

    bool has_stacks = false; // recorded ones
    bool has_times = false;
    bool is_partial = false; // cut off, unreadable or interrupted: more happened than the profile knows

    static constexpr std::size_t most_moments = 4096;
    static constexpr std::size_t most_bad_frees = 1000;
};

} // namespace qor::heap
