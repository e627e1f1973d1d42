// The heap-log analyser: replays an mtrace log, joined with an allocation log of the framework if there is one, or
// an allocation log alone, and reports leaks and bad frees.
#pragma once

#include "heap/log/heap_log.h"
#include "heap/log/log_lines.h"
#include "heap/log/text_numbers.h"
#include "heap/origin/origin_table.h"
#include "heap/table/allocation_table.h"
#include "heap/table/look_ahead_list.h"
#include "qor/qor.h"
#include "report_streams.h"

#include <cstdio>

// Carries the head of every bucket (8 MiB), so it always lives on the heap. One object serves one replay.
class mtrace_proc : public qorRefObject {
public:
    explicit mtrace_proc(std::FILE* out = stdout, std::FILE* err = stderr);

    // One or two words: the mtrace log and the log to join. False: the last error says why.
    bool Execute_MTRACE(qorStringArray& args);

    // One word: the allocation log.
    bool Execute_MEMCHECK(qorStringArray& args);

    // After a replay: what a log begins with that is none of its kind. Empty otherwise.
    std::string_view foreign_mtrace() const noexcept { return m_mtrace_file.foreign_beginning(); }
    std::string_view foreign_memcheck() const noexcept { return m_memcheck_file.foreign_beginning(); }

    // After a replay: why a log was not read to its end. Empty otherwise.
    const qorString& mtrace_failure() const noexcept { return m_mtrace_file.failure(); }
    const qorString& memcheck_failure() const noexcept { return m_memcheck_file.failure(); }

    using __entry = qor::heap::allocation_table::__entry;
    using __block = qor::heap::allocation_table::__block;
    using __mtrace_line = qor::heap::log_lines::mtrace_line;
    using __memcheck_line = qor::heap::log_lines::memcheck_line;

private:
    // Blocks that the framework mapped directly: malloc, and so an mtrace log, never saw them.
    static constexpr uint8 huge_block = 3;

    static constexpr std::size_t origins_minimum = 12 * 1024 * 1024;

    // What both actions say to words that they cannot use. Always false.
    bool refuse_words(const char* action, const qorStringArray& args);

    // The next valid record; lines that cannot be used are skipped, with a warning where that is a fault. False at
    // the end of the log. Texts are valid until the next call.
    bool read_mtrace(__mtrace_line& out);
    bool read_memcheck_line(__memcheck_line& out);

    // A person sees how far it is before there may be a wait.
    template <class LINE>
    const typename qor::heap::heap_log<LINE>::entry* next_line(qor::heap::heap_log<LINE>& log) {
        if (log.is_used_up())
            m_streams.keep_up();
        return log.next(m_table);
    }

    void mtrace_allocation(const __mtrace_line& rec);
    bool mtrace_read_memcheck_for(uint64 address, qor::heap::look_ahead_list::record& out);
    void mtrace_add_memcheck_data(const __entry& entry);
    void mtrace_handle_huge_entry(const __memcheck_line& rec);
    void enter_memcheck(const __memcheck_line& rec);
    void set_type_name(const __entry& entry, uint32 type_name);
    qor::heap::look_ahead_list::record keep(const __memcheck_line& rec);
    void memcheck_record(const __memcheck_line& rec);

    // Logs may name new callers all the time, so those that no live block has are given up now and then.
    void forget_unused_origins() {
        if (m_origins.bytes() > m_origins_limit)
            renew_origins();
    }
    void renew_origins();

    void list_look_ahead();
    void report_leaks();
    void report_free_without_alloc(const __mtrace_line& rec);
    void report_free_without_alloc(const __memcheck_line& rec);

    uint32 m_debug_code;
    qor::heap::heap_log<__mtrace_line> m_mtrace_file;
    qor::heap::heap_log<__memcheck_line> m_memcheck_file;
    qor::heap::allocation_table m_table;
    qor::heap::look_ahead_list m_look_ahead;
    qor::heap::origin_table m_origins;
    qor::heap::text_numbers::taker m_callers;                 // the origin of one
    qor::heap::text_numbers::taker m_places;                  // the origin of a file and line, beside a block's type
    qor::heap::text_numbers::taker m_type_names;              // the text's number in m_origins
    std::size_t m_origins_limit = origins_minimum; // bytes of m_origins at which the unused are given up
    report_streams m_streams;
};
