// Some lines of a log that are read together: their text and what each of them says.
#pragma once

#include "log_fields.h"
#include "log_lines.h"
#include "qor/qor.h"
#include "text_numbers.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <vector>

namespace qor::heap {

template <class LINE>
struct log_batch {
    using entry = log_lines::entry<LINE>;

    // At a time.
    static constexpr uint32 limit = 1024;

    // Who looks ahead by less than this does not have to ask where the entries end.
    static constexpr uint32 margin = 32;

    const char* text = nullptr;
    uint32 size = 0;

    // What of the text is parsed: [begin, end).
    uint32 begin = 0;
    uint32 end = 0;
    uint32 count = 0;
    std::vector<entry> entries;

    // True: the text is that of the reader, until it reads on.
    bool is_lent = false;

    // True: the text is the beginning of a line that is too long for a record.
    bool is_cut = false;

    // For a text of the batch's own: so much that to pass it on is nothing beside it, and no more than the caches hold
    // of some.
    static constexpr std::size_t own_size = 64 * 1024;
    std::vector<char> own;

    void set_text(const char* lines, std::size_t length) noexcept {
        text = lines;
        size = static_cast<uint32>(length);
        begin = end = count = 0;
        is_cut = false;
    }

    // The entries of the text's next lines take the place of those before. False: there are none left.
    bool parse_on(text_numbers::giver& numbers) {
        if (end == size)
            return false;
        begin = end;
        const char* next = text + begin;
        count = log_lines::take_lines<LINE>(text, next, text + size, entries.data(), limit);
        end = static_cast<uint32>(next - text);
        if (!is_cut)
            give_numbers(numbers);
        else if (count != 0)
            entries[0].kind = log_lines::kind::too_few_words;
        return true;
    }

    // Which lines have a text comes in no order that a processor could guess, so they are looked for first.
    void give_numbers(text_numbers::giver& numbers) {
        uint32 with_text[limit];
        uint32 found = 0;
        for (uint32 i = 0; i < count; ++i) {
            with_text[found] = i;
            found += has_text(entries[i]);
        }
        for (uint32 i = 0; i < found; ++i)
            give_number(numbers, entries[with_text[i]]);
    }

    static bool has_text(const log_lines::entry<log_lines::mtrace_line>& of) noexcept { return of.is_alloc; }
    static bool has_text(const log_lines::memcheck_line& of) noexcept { return of.code != 'F'; }

    void give_number(text_numbers::giver& numbers, log_lines::entry<log_lines::mtrace_line>& to) const {
        to.caller_number = numbers.of({text + to.caller_at, to.caller_size});
    }
    void give_number(text_numbers::giver& numbers, log_lines::entry<log_lines::memcheck_line>& to) const {
        std::string_view all = to.type_name;
        if (!to.file.empty())
            all = {to.file.data(), static_cast<std::size_t>(text + to.end - to.file.data())};
        to.number = numbers.of(all);
    }

    // The memory of a batch that is used.
    void make() { entries.resize(limit + margin); }
    void make_with_text() {
        make();
        own.resize(own_size + qorReadLinesPadding);
    }
};

// Makes batches of a log.
template <class LINE>
class log_source {
public:
    using batch = log_batch<LINE>;

    bool open(const char* path) {
        create_IQORSimpleFileReader(m_file.Out());
        m_next = m_end = nullptr;
        return m_file->Open(path, 0);
    }

    // As IQORSimpleFileReader has it.
    void set_before_wait(void (*tell)(void* context), void* context) { m_file->SetBeforeWait(tell, context); }

    bool is_open() const noexcept { return !m_file.IsEmpty(); }

    // Whether lines follow; reads them. False: there are none, or they cannot be read. Then the last error says why,
    // otherwise there is none.
    bool has_text() {
        if (m_next == m_end) {
            uint64 size = 0;
            qorClearLastError();
            m_is_cut = !m_file->ReadLines(&m_next, &size);
            m_end = m_next + size;
        }
        return m_next != m_end;
    }

    // The next lines, parsed; their text is the reader's. False: there are none, as above.
    bool lend(batch& out, text_numbers::giver& numbers) {
        if (!has_text())
            return false;
        out.is_lent = true;
        out.set_text(m_next, static_cast<std::size_t>(m_end - m_next));
        out.is_cut = m_is_cut;
        out.parse_on(numbers);
        out.size = out.end;
        m_next += out.size;
        return true;
    }

    // The next lines with a text of the batch's own, which has been made, unless the first one is too long for that:
    // lent. Parsed only if that is wanted.
    bool give(batch& out, bool parsed, text_numbers::giver& numbers) {
        if (!has_text())
            return false;
        const std::string_view piece(m_next, std::min<std::size_t>(batch::own_size, m_end - m_next));
        const std::size_t size = piece.rfind('\n') + 1;
        if (size == 0 || m_is_cut)
            return lend(out, numbers);
        out.is_lent = false;
        std::memcpy(out.own.data(), m_next, size);
        out.set_text(out.own.data(), size);
        m_next += size;
        if (parsed)
            out.parse_on(numbers);
        return true;
    }

private:
    zetSmartPointer<IQORSimpleFileReader> m_file;
    const char* m_next = nullptr; // what the reader has handed out and no batch has
    const char* m_end = nullptr;
    bool m_is_cut = false; // it is the beginning of a line that is too long
};

} // namespace qor::heap
