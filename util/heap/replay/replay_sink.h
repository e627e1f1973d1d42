// What a replay tells, and to whom.
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

// Why a line was skipped, or what is odd about it. Some warnings come with a text, valid during the call.
enum class warning : uint8 {
    invalid_mtrace_line,
    bad_code_token, // the token; the record counts, its size decides what it is
    invalid_memcheck_line,
    unknown_memcheck_code, // the letter
    unmatched_type_record,
    unexpected_memcheck_code, // the letter
};

// All calls come from the thread that runs the replay, in the order of the log. A sink that throws ends the replay.
template <class SINK, class SIZE>
concept replay_sink = requires(SINK& sink, const block<SIZE>& of, const log_lines::mtrace_line<SIZE>& mtrace_record,
                               const log_lines::memcheck_line<SIZE>& memcheck_record, std::string_view text) {
    // A block has entered the table, or has left it. An allocation is told when the joined log has been asked about it.
    sink.allocation(of);
    sink.release(of);

    // A live block got another origin, since its type has become known.
    sink.origin_changed(of);

    // A release of an address that no live block has.
    sink.bad_free(mtrace_record);
    sink.bad_free(memcheck_record);

    sink.warning(warning::bad_code_token, text);

    // The number of records read so far: at every 20th record of an mtrace log, at every 100th of an allocation log.
    sink.progress(uint32{});

    // Lines are about to be read, which may take a while; or they are not written yet, which may take any time.
    sink.before_read();
    sink.before_wait();

    // A record of the joined log has no partner. Most are told at the end of the log.
    sink.leftover(memcheck_record);

    // The log has been read to its end; the number of leftovers that follow.
    sink.end_of_log(uint32{});
};

} // namespace qor::heap
