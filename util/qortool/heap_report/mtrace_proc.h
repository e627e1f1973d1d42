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

// The object contains the head of every bucket (8 MiB), so allocate it on the heap. One object serves one replay and is
// its sink.
class mtrace_proc : public qorRefObject {
public:
    using replay = qor::heap::replay<mtrace_proc, qor::heap::fixed_report_rules>;
    using block = qor::heap::block<uint32>;
    using __entry = qor::heap::allocation_table<uint32>::__entry;
    using __block = qor::heap::allocation_table<uint32>::__block;
    using __mtrace_line = qor::heap::log_lines::mtrace_line<uint32>;
    using __memcheck_line = qor::heap::log_lines::memcheck_line<uint32>;

    explicit mtrace_proc(std::FILE* out = stdout, std::FILE* err = stderr);

    // Takes one or two words: the mtrace log, and the log to join. Returns false on failure; the last error says why.
    bool Execute_MTRACE(qorStringArray& args);

    // Takes one word: the allocation log.
    bool Execute_MEMCHECK(qorStringArray& args);

    // After a replay: the beginning of a log that is not of the expected kind. Empty otherwise.
    std::string_view foreign_mtrace() const noexcept { return m_replay.mtrace().foreign_beginning(); }
    std::string_view foreign_memcheck() const noexcept { return m_replay.memcheck().foreign_beginning(); }

    // After a replay: the reason why a log was not read to its end. Empty otherwise.
    const qorString& mtrace_failure() const noexcept { return m_replay.mtrace().failure(); }
    const qorString& memcheck_failure() const noexcept { return m_replay.memcheck().failure(); }

    // Frees the memory of the replay. Without this call it stays in use until the process ends, which is enough for the
    // two actions.
    void free_all() { m_replay.free_all(); }

    // The events of the replay. The report lists the blocks that are live at the end, so allocations, releases and
    // changed origins are ignored.
    void allocation(const block&) noexcept {}
    void release(const block&) noexcept {}
    void origin_changed(const block&, uint32) noexcept {}
    void bad_free(const __mtrace_line& rec) { report_free_without_alloc(rec); }
    void bad_free(const __memcheck_line& rec) { report_free_without_alloc(rec); }
    void warning(qor::heap::warning what, std::string_view text);
    void progress(uint32 count) { m_streams.progress(count); }
    void before_read() { m_streams.flush_if_stale(); }
    void before_wait() { m_streams.before_wait(); }
    void end_of_log(uint32 leftovers);
    void leftover(const __memcheck_line& rec);

private:
    // Reports a wrong number of words, for both actions. Always returns false.
    bool refuse_words(const char* action, const qorStringArray& args);

    void report_leaks();
    void report_free_without_alloc(const __mtrace_line& rec);
    void report_free_without_alloc(const __memcheck_line& rec);

    uint32 m_debug_code;
    report_streams m_streams;
    replay m_replay;
};
