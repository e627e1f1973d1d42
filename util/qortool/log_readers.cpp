// The readers of both logs: lines in, records out. The grammars are in docs/heap-logs.md.
#include "log_fields.h"
#include "mtrace_proc.h"

#include <cstdlib>

namespace {

int digit_value(char c) noexcept {
    if (c >= '0' && c <= '9')
        return c - '0';
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

void assign(qorString& target, std::string_view text) noexcept {
    target.Set(text.data(), static_cast<int32>(text.size()));
}

// For messages: a NUL in a word ends its text there.
int printed_length(std::string_view word) noexcept { return static_cast<int>(word.size()); }

} // namespace

uint64 log_fields::hexadecimal(std::string_view word) noexcept {
    // The usual form, by hand: the C library takes three times as long.
    const char* at = word.data();
    const char* const end = at + word.size();
    if (word.size() > 2 && at[0] == '0' && (at[1] == 'x' || at[1] == 'X') && digit_value(at[2]) >= 0)
        at += 2;
    if (end - at > 16 || (at != end && digit_value(*at) < 0))
        return std::strtoull(word.data(), nullptr, 16);
    uint64 value = 0;
    for (; at != end; ++at) {
        const int digit = digit_value(*at);
        if (digit < 0)
            break;
        value = value << 4 | static_cast<uint64>(digit);
    }
    return value;
}

uint64 log_fields::unsigned_number(std::string_view word) noexcept {
    if (word.size() > 2 && word[0] == '0' && word[1] == 'x')
        return hexadecimal(word);
    return std::strtoull(word.data(), nullptr, 0);
}

int64 log_fields::signed_number(std::string_view word) noexcept { return std::strtoll(word.data(), nullptr, 0); }

bool mtrace_proc::read_mtrace(__mtrace_line& out) {
    const qorDebugSeq trace(m_debug_code, "read_mtrace");
    while (m_mtrace_file->ReadLine(m_line)) {
        m_line.TrimBoth();
        qorDebug(m_debug_code, "mtrace line: [%s]", m_line.Text());
        if (m_line.IsEmpty() || m_line[0] != '@')
            continue;
        std::string_view rest(m_line.Text() + 1, m_line.Length() - 1);
        const std::string_view caller = log_fields::next_word(rest);
        const std::string_view code = log_fields::next_word(rest);
        const std::string_view address = log_fields::next_word(rest);
        const std::string_view size = log_fields::next_word(rest);
        if (address.empty()) {
            fixed_fprintf(m_streams.err(), "WARNING Invalid line in mtrace() file\n");
            continue;
        }
        assign(out.caller, caller);
        out.address = log_fields::hexadecimal(address);
        out.size = size.empty() ? 0 : static_cast<uint32>(log_fields::unsigned_number(size));
        switch (code[0]) {
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
            fixed_fprintf(m_streams.err(), "WARNING Bad code token [%.*s]\n", printed_length(code), code.data());
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
    while (m_memcheck_file->ReadLine(m_line)) {
        m_line.TrimBoth();
        if (m_line.IsEmpty() || m_line[0] == '#')
            continue;
        const char code = m_line[0];
        std::string_view rest(m_line.Text() + 1, m_line.Length() - 1);
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
