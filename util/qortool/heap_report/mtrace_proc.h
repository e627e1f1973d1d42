// The heap-log analyser: replays an mtrace log, joined with an allocation log of the framework if there is one, or
// an allocation log alone, and reports leaks and bad frees.
#pragma once

#include "heap/log/log_lines.h"
#include "heap/replay/replay.h"
#include "heap/table/allocation_table.h"
#include "qor/qor.h"
#include "report_streams.h"

#include <cstdio>
#include <string_view>

// Carries the head of every bucket (8 MiB), so it always lives on the heap. One object serves one replay, of which it
// is the sink.
class mtrace_proc : public qorRefObject {
public:
    using replay = qor::heap::replay<mtrace_proc, qor::heap::fixed_report_rules>;
    using block = qor::heap::block<uint32>;
    using __entry = qor::heap::allocation_table<uint32>::__entry;
    using __block = qor::heap::allocation_table<uint32>::__block;
    using __mtrace_line = qor::heap::log_lines::mtrace_line<uint32>;
    using __memcheck_line = qor::heap::log_lines::memcheck_line<uint32>;

    explicit mtrace_proc(std::FILE* out = stdout, std::FILE* err = stderr);

    // One or two words: the mtrace log and the log to join. False: the last error says why.
    bool Execute_MTRACE(qorStringArray& args);

    // One word: the allocation log.
    bool Execute_MEMCHECK(qorStringArray& args);

    // After a replay: what a log begins with that is none of its kind. Empty otherwise.
    std::string_view foreign_mtrace() const noexcept { return m_replay.mtrace().foreign_beginning(); }
    std::string_view foreign_memcheck() const noexcept { return m_replay.memcheck().foreign_beginning(); }

    // After a replay: why a log was not read to its end. Empty otherwise.
    const qorString& mtrace_failure() const noexcept { return m_replay.mtrace().failure(); }
    const qorString& memcheck_failure() const noexcept { return m_replay.memcheck().failure(); }

    // Gives the memory of the replay back. What is not freed so stays in use until the process ends: the two actions
    // end with it.
    void free_all() { m_replay.free_all(); }

    // What the replay tells. Live blocks are reported at the end, all others are of no interest.
    void allocation(const block&) noexcept {}
    void release(const block&) noexcept {}
    void origin_changed(const block&) noexcept {}
    void bad_free(const __mtrace_line& rec) { report_free_without_alloc(rec); }
    void bad_free(const __memcheck_line& rec) { report_free_without_alloc(rec); }
    void warning(qor::heap::warning what, std::string_view text);
    void progress(uint32 count) { m_streams.progress(count); }
    void before_read() { m_streams.flush_if_stale(); }
    void before_wait() { m_streams.before_wait(); }
    void end_of_log(uint32 leftovers);
    void leftover(const __memcheck_line& rec);

private:
    // What both actions say to words that they cannot use. Always false.
    bool refuse_words(const char* action, const qorStringArray& args);

    void report_leaks();
    void report_free_without_alloc(const __mtrace_line& rec);
    void report_free_without_alloc(const __memcheck_line& rec);

    uint32 m_debug_code;
    report_streams m_streams;
    replay m_replay;
};
