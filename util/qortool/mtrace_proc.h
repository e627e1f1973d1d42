// The heap-log analyser: replays an mtrace log, joined with an allocation log of the framework if there is one, or
// an allocation log alone, and reports leaks and bad frees.
#pragma once

#include "allocation_table.h"
#include "origin_table.h"
#include "qor/qor.h"
#include "report_streams.h"

#include <string_view>

// Carries the head of every bucket (8 MiB), so it always lives on the heap. One object serves one replay.
class mtrace_proc : public qorRefObject {
public:
    mtrace_proc();

    // One or two words: the mtrace log and the log to join. False: the last error says why.
    bool Execute_MTRACE(qorStringArray& args);

    // One word: the allocation log.
    bool Execute_MEMCHECK(qorStringArray& args);

    using __entry = allocation_table::__entry;
    using __block = allocation_table::__block;

    // One record of an mtrace log.
    struct __mtrace_line {
        uint64 address = 0;
        uint32 size = 0;
        bool is_alloc = false;
        qorString caller;
    };

    // One record of an allocation log; what its kind does not carry is 0 or empty.
    struct __memcheck_line {
        char code = '\0';
        uint64 address = 0;
        uint32 size = 0;
        uint8 bt = 0;
        qorString file;
        int32 line = 0;
        qorString type_name;
    };

private:
    // Blocks that the framework mapped directly: malloc, and so an mtrace log, never saw them.
    static constexpr uint8 huge_block = 3;
    static constexpr uint32 look_ahead_limit = 1024;

    // A log that is being read: lines in place, without white space at both ends.
    class log {
    public:
        bool open(const char* path);
        bool is_given() const noexcept { return !m_file.IsEmpty(); }

        // The next line of the run at hand, or of the whole log. Lines are valid until the next run is read.
        bool next_line_at_hand(std::string_view& line);
        bool next_line(std::string_view& line);
        bool next_run();

    private:
        zetSmartPointer<IQORSimpleFileReader> m_file;
        const char* m_next = nullptr;
        const char* m_end = nullptr;
    };

    // A line of an mtrace log that says something, in place.
    struct mtrace_words {
        std::string_view caller;
        std::string_view code;
        uint64 address;
        uint32 size;
        bool is_valid; // false: words are missing
    };

    // Lines are read some way ahead of the replay, so that the table's memory is on its way to the processor when
    // it is needed. What there is to say of a line is said when its turn comes.
    static constexpr uint32 read_ahead_limit = 64;

    bool read_ahead();
    bool parse_mtrace(std::string_view line, mtrace_words& words) const;

    // The next valid record; lines that cannot be used are skipped, with a warning where that is a fault. False at
    // the end of the log.
    bool read_mtrace(__mtrace_line& out);
    bool read_memcheck_line(__memcheck_line& out);

    void mtrace_allocation(const __mtrace_line& rec);
    bool mtrace_read_memcheck_for(uint64 address, __memcheck_line& out);
    void mtrace_add_memcheck_data(const __entry& entry);
    void mtrace_handle_huge_entry(const __memcheck_line& rec);
    void enter_memcheck(const __memcheck_line& rec);
    void set_type_name(const __entry& entry, const qorString& type_name);
    void memcheck_record(const __memcheck_line& rec);
    void list_look_ahead();
    void report_leaks();
    void report_free_without_alloc(const __mtrace_line& rec);
    void report_free_without_alloc(const __memcheck_line& rec);

    uint32 m_debug_code;
    log m_mtrace_file;
    log m_memcheck_file;
    mtrace_words m_ahead[read_ahead_limit];
    uint32 m_ahead_next = 0;
    uint32 m_ahead_count = 0;
    allocation_table m_table;
    zetArray<__memcheck_line> m_look_ahead;
    origin_table m_origins;
    report_streams m_streams;
};
