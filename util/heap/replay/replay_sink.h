// The events that a replay reports to its sink.
#pragma once

#include "heap/log/log_lines.h"
#include "qor/system/Types.h"

#include <concepts>
#include <string_view>

namespace qor::heap {

// A block of the table. Its address is not 0.
template <class SIZE>
struct block {
    uint64 address;
    SIZE size;     // in bytes
    uint32 origin; // its number in replay::origins(), valid during the call
};

// The reason why a line was skipped or is odd. Some warnings come with a text, valid during the call.
enum class warning : uint8 {
    invalid_mtrace_line,
    bad_code_token, // text: the token. The record counts; its size decides between allocation and release
    invalid_memcheck_line,
    unknown_memcheck_code, // text: the letter
    unmatched_type_record,
    unexpected_memcheck_code, // text: the letter
};

// All calls are made on the thread that runs the replay, in the order of the log. An exception from the sink ends the
// replay.
template <class SINK, class SIZE>
concept replay_sink = requires(SINK& sink, const block<SIZE>& of, const log_lines::mtrace_line<SIZE>& mtrace_record,
                               const log_lines::memcheck_line<SIZE>& memcheck_record, std::string_view text) {
    // A block has entered the table, or has left it. An allocation is reported after the joined log has been searched
    // for it.
    sink.allocation(of);
    sink.release(of);

    // A live block has a new origin, because its type has become known. The second argument is the number of the old
    // one.
    sink.origin_changed(of, uint32{});

    // A release of an address that no live block has.
    sink.bad_free(mtrace_record);
    sink.bad_free(memcheck_record);

    sink.warning(warning::bad_code_token, text);

    // The number of records read so far: reported at every 20th record of an mtrace log, and at every 100th of an
    // allocation log.
    sink.progress(uint32{});

    // before_read(): lines are about to be read, which may take a while. before_wait(): they are not written yet, so
    // the wait has no limit.
    sink.before_read();
    sink.before_wait();

    // A record of the joined log has no partner. Most of these are reported at the end of the log.
    sink.leftover(memcheck_record);

    // The log has been read to its end. The argument is the number of leftovers that follow.
    sink.end_of_log(uint32{});
};

// A sink that knows the stacks of allocations may have one event more: it is asked for the stack of each allocation
// line with a known code, in their order. Blocks with different stacks have different origins
// (origin_table::origin::stack). 0 is an unknown stack. Numbers are used as indices, the even and the odd ones apart,
// so they should be small. has_stacks(): most allocations will have one; asked when the replay begins.
template <class SINK, class SIZE>
concept stacks_sink = replay_sink<SINK, SIZE> && requires(SINK& sink) {
    { sink.next_stack() } -> std::same_as<uint32>;
    { sink.has_stacks() } -> std::same_as<bool>;
};

} // namespace qor::heap
