// A log that is being read. Lines are read some way ahead of the replay, so that the table's memory is on its
// way to the processor when it is needed. What there is to say of a line is said when its turn comes.
#pragma once

#include "allocation_table.h"
#include "log_fields.h"
#include "log_lines.h"
#include "qor/qor.h"

template <class LINE>
class heap_log {
public:
    struct entry {
        LINE line;
        log_lines::kind kind = log_lines::kind::record;
    };

    // With the trace code on, each line is traced with the format when it is read, and none before its turn.
    // Without a format there is no trace.
    heap_log(uint32 trace_code, const char* trace_format)
        : m_trace_code(trace_code), m_trace_format(trace_format) {}

    bool open(const char* path) {
        create_IQORSimpleFileReader(m_file.Out());
        m_next = m_end = nullptr;
        return m_file->Open(path, 0);
    }

    bool is_given() const noexcept { return !m_file.IsEmpty(); }

    // The next line that means something, or null at the end of the log. Texts in it are valid until the next
    // call.
    const entry* next(allocation_table& table) {
        if (m_taken == m_count && !read_ahead(table))
            return nullptr;
        return &m_ahead[m_taken++];
    }

private:
    static constexpr uint32 limit = 64;
    static constexpr uint32 head_lead = 12;

    bool read_ahead(allocation_table& table) {
        m_taken = m_count = 0;
        do {
            if (m_trace_format != nullptr && qor::glue::debug_is_on(m_trace_code))
                parse_traced();
            else
                parse(table);
            // Lines of the next run would take the place of those at hand.
        } while (m_count == 0 && next_run());
        for (uint32 i = m_count > head_lead ? m_count - head_lead : 0; i < m_count; ++i)
            table.prefetch_block(m_ahead[i].line.address);
        return m_count != 0;
    }

    void parse(allocation_table& table) {
        while (m_count < limit && m_next != m_end) {
            entry& each = m_ahead[m_count];
            if (log_lines::take_usual(m_next, each.line))
                each.kind = log_lines::kind::record;
            else if (!parse_any_line(each))
                continue;
            table.prefetch_head(each.line.address);
            // The heads asked for so many lines ago have arrived.
            if (m_count >= head_lead)
                table.prefetch_block(m_ahead[m_count - head_lead].line.address);
            ++m_count;
        }
    }

    void parse_traced() {
        while (m_count == 0 && m_next != m_end) {
            const char* next = m_next;
            std::string_view line;
            log_fields::next_line(next, m_end, line);
            qorDebug(m_trace_code, m_trace_format, static_cast<int>(line.size()), line.data());
            if (parse_any_line(m_ahead[0]))
                m_count = 1;
        }
    }

    // False: the line means nothing.
    bool parse_any_line(entry& each) {
        std::string_view line;
        log_fields::next_line(m_next, m_end, line);
        each.kind = log_lines::parse(line, each.line);
        return each.kind != log_lines::kind::no_meaning;
    }

    bool next_run() {
        uint64 size = 0;
        if (!m_file->ReadLines(&m_next, &size))
            return false;
        m_end = m_next + size;
        return true;
    }

    uint32 m_trace_code;
    const char* m_trace_format;
    zetSmartPointer<IQORSimpleFileReader> m_file;
    const char* m_next = nullptr;
    const char* m_end = nullptr;
    uint32 m_taken = 0;
    uint32 m_count = 0;
    entry m_ahead[limit];
};
