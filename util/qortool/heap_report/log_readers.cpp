// The readers of both logs: what is said of lines that are no records.
#include "mtrace_proc.h"

namespace {

// For messages: a NUL in a word ends its text there.
int printed_length(std::string_view word) noexcept { return static_cast<int>(word.size()); }

} // namespace

bool mtrace_proc::read_mtrace(__mtrace_line& out) {
    const qorDebugSeq trace(m_debug_code, "read_mtrace");
    forget_unused_origins();
    while (const auto* const next = next_line(m_mtrace_file)) {
        if (next->kind != qor::heap::log_lines::kind::record) {
            fixed_fprintf(m_streams.err(), "WARNING Invalid line in mtrace() file\n");
            continue;
        }
        // The size still tells what the line must have been.
        if (!next->is_code_known) {
            qor::heap::log_lines::parse(m_mtrace_file.last_line(), out);
            fixed_fprintf(m_streams.err(), "WARNING Bad code token [%.*s]\n", printed_length(out.code),
                          out.code.data());
        }
        out.address = next->address;
        out.size = next->size;
        out.is_alloc = next->is_alloc;
        out.caller = {m_mtrace_file.text() + next->caller_at, next->caller_size};
        out.caller_number = next->caller_number;
        return true;
    }
    qorDebug(m_debug_code, "Cannot read; assume EOF");
    return false;
}

bool mtrace_proc::read_memcheck_line(__memcheck_line& out) {
    const qorDebugSeq trace(m_debug_code, "read_memcheck_line");
    forget_unused_origins();
    while (const auto* const next = next_line(m_memcheck_file)) {
        out = *next;
        if (next->kind == qor::heap::log_lines::kind::record)
            return true;
        if (next->kind == qor::heap::log_lines::kind::too_few_words)
            fixed_fprintf(m_streams.err(), "WARNING Invalid line in memcheck() file\n");
        else
            fixed_fprintf(m_streams.err(), "WARNING Invalid memcheck line code %c\n", out.code);
    }
    qorDebug(m_debug_code, "Cannot read; assume EOF");
    return false;
}
