// The readers of both logs: lines in, records out. The grammars are in docs/heap-logs.md.
#include "log_fields.h"
#include "mtrace_proc.h"

namespace {

void assign(qorString& target, std::string_view text) noexcept {
    target.Set(text.data(), static_cast<int32>(text.size()));
}

// For messages: a NUL in a word ends its text there.
int printed_length(std::string_view word) noexcept { return static_cast<int>(word.size()); }

} // namespace

bool mtrace_proc::log::open(const char* path) {
    create_IQORSimpleFileReader(m_file.Out());
    m_next = m_end = nullptr;
    return m_file->Open(path, 0);
}

bool mtrace_proc::log::next_line_at_hand(std::string_view& line) {
    return log_fields::next_line(m_next, m_end, line);
}

bool mtrace_proc::log::next_line(std::string_view& line) {
    while (!next_line_at_hand(line))
        if (!next_run())
            return false;
    return true;
}

bool mtrace_proc::log::next_run() {
    uint64 size = 0;
    if (!m_file->ReadLines(&m_next, &size))
        return false;
    m_end = m_next + size;
    return true;
}

// False: the line is none of the log's own, such as a comment.
bool mtrace_proc::parse_mtrace(std::string_view line, mtrace_words& words) const {
    qorDebug(m_debug_code, "mtrace line: [%.*s]", printed_length(line), line.data());
    if (line.empty() || line[0] != '@')
        return false;
    std::string_view rest = line.substr(1);
    words.caller = log_fields::next_word(rest);
    words.code = log_fields::next_word(rest);
    const std::string_view address = log_fields::next_word(rest);
    const std::string_view size = log_fields::next_word(rest);
    words.is_valid = !address.empty();
    words.address = log_fields::hexadecimal(address);
    words.size = size.empty() ? 0 : static_cast<uint32>(log_fields::unsigned_number(size));
    return true;
}

// False: the end of the log.
bool mtrace_proc::read_ahead() {
    // A trace shows each line when it is read, so with a trace it is not read before its turn.
    const uint32 limit = qor::glue::debug_is_on(m_debug_code) ? 1 : read_ahead_limit;
    m_ahead_next = m_ahead_count = 0;
    std::string_view line;
    do {
        while (m_ahead_count < limit && m_mtrace_file.next_line_at_hand(line)) {
            if (!parse_mtrace(line, m_ahead[m_ahead_count]))
                continue;
            m_table.prefetch_head(m_ahead[m_ahead_count].address);
            ++m_ahead_count;
        }
        // Lines of the next run would take the place of those at hand.
    } while (m_ahead_count == 0 && m_mtrace_file.next_run());
    for (uint32 i = 0; i < m_ahead_count; ++i)
        m_table.prefetch_block(m_ahead[i].address);
    return m_ahead_count != 0;
}

bool mtrace_proc::read_mtrace(__mtrace_line& out) {
    const qorDebugSeq trace(m_debug_code, "read_mtrace");
    while (m_ahead_next < m_ahead_count || read_ahead()) {
        const mtrace_words& words = m_ahead[m_ahead_next++];
        if (!words.is_valid) {
            fixed_fprintf(m_streams.err(), "WARNING Invalid line in mtrace() file\n");
            continue;
        }
        assign(out.caller, words.caller);
        out.address = words.address;
        out.size = words.size;
        switch (words.code[0]) {
        case '+':
        case '>':
            out.is_alloc = true;
            break;
        case '-':
        case '<':
            out.is_alloc = false;
            break;
        default:
            // The size still tells what the line must have been.
            fixed_fprintf(m_streams.err(), "WARNING Bad code token [%.*s]\n", printed_length(words.code),
                          words.code.data());
            out.is_alloc = out.size != 0;
            break;
        }
        return true;
    }
    qorDebug(m_debug_code, "Cannot read; assume EOF");
    return false;
}

bool mtrace_proc::read_memcheck_line(__memcheck_line& out) {
    const qorDebugSeq trace(m_debug_code, "read_memcheck_line");
    std::string_view line;
    while (m_memcheck_file.next_line(line)) {
        if (line.empty() || line[0] == '#')
            continue;
        const char code = line[0];
        std::string_view rest = line.substr(1);
        std::string_view words[5]; // address, and what the code makes of the others
        uint32 count = 0;
        while (count < 5 && !(words[count] = log_fields::next_word(rest)).empty())
            ++count;
        const uint32 needed = code == 'A' ? 3 : code == 'T' ? 2 : 1;
        if (count < needed) {
            fixed_fprintf(m_streams.err(), "WARNING Invalid line in memcheck() file\n");
            continue;
        }
        out.code = code;
        out.address = log_fields::hexadecimal(words[0]);
        out.size = 0;
        out.bt = 0;
        out.line = 0;
        out.file.Empty();
        out.type_name.Empty();
        switch (code) {
        case 'A':
            out.size = static_cast<uint32>(log_fields::unsigned_number(words[1]));
            out.bt = static_cast<uint8>(log_fields::unsigned_number(words[2]));
            assign(out.file, words[3]);
            if (count > 4)
                out.line = static_cast<int32>(log_fields::signed_number(words[4]));
            return true;
        case 'F':
            if (count > 1)
                out.bt = static_cast<uint8>(log_fields::unsigned_number(words[1]));
            return true;
        case 'T':
            if (count > 1)
                assign(out.type_name, words[1]);
            else
                out.type_name.Set("** type missing in memcheck file **");
            return true;
        case 'E':
            break;
        default:
            fixed_fprintf(m_streams.err(), "WARNING Invalid memcheck line code %c\n", code);
            break;
        }
    }
    qorDebug(m_debug_code, "Cannot read; assume EOF");
    return false;
}
