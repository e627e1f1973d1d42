// Some lines of a log, read and parsed together: their text and what each of them says.
#pragma once

#include "log_fields.h"
#include "log_lines.h"
#include "qor/qor.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <vector>

template <class LINE>
struct log_batch {
    struct entry {
        LINE line;
        log_lines::kind kind = log_lines::kind::record;
        uint32 end = 0; // behind the line, in the text
    };

    // Lines without meaning have no entry.
    static constexpr uint32 limit = 1024;

    // Who looks ahead by less than this does not have to ask where the entries end.
    static constexpr uint32 margin = 32;

    const char* text = nullptr;
    uint32 size = 0;
    uint32 count = 0;
    std::vector<entry> entries;

    // True: the text is that of the reader, until it reads on.
    bool is_lent = false;

    // For a text of the batch's own. With those of some more, small enough to stay in the second-level cache.
    static constexpr std::size_t own_size = 32 * 1024;
    std::vector<char> own;

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

    bool is_open() const noexcept { return !m_file.IsEmpty(); }

    // Whether lines follow; reads them. False: there are none, or they cannot be read, and then the last error says why.
    bool has_text() {
        uint64 size = 0;
        if (m_next == m_end && m_file->ReadLines(&m_next, &size))
            m_end = m_next + size;
        return m_next != m_end;
    }

    // The next lines; their text is the reader's. False: there are none, as above.
    bool lend(batch& out) {
        if (!has_text())
            return false;
        out.is_lent = true;
        parse(out, m_next, m_end);
        m_next += out.size;
        return true;
    }

    // The same with a text of the batch's own, which has been made, unless the first line is too long for that: lent.
    bool give(batch& out) {
        if (!has_text())
            return false;
        const std::string_view piece(m_next, std::min<std::size_t>(batch::own_size, m_end - m_next));
        const std::size_t size = piece.rfind('\n') + 1;
        if (size == 0)
            return lend(out);
        out.is_lent = false;
        std::memcpy(out.own.data(), m_next, size);
        parse(out, out.own.data(), out.own.data() + size);
        m_next += out.size;
        return true;
    }

private:
    static void parse(batch& out, const char* text, const char* end) {
        const char* next = text;
        uint32 count = 0;
        while (count < batch::limit && next != end) {
            typename batch::entry& each = out.entries[count];
            if (log_lines::take_usual(next, each.line)) {
                each.kind = log_lines::kind::record;
            } else {
                std::string_view line;
                log_fields::next_line(next, end, line);
                each.kind = log_lines::parse(line, each.line);
            }
            each.end = static_cast<uint32>(next - text);
            count += each.kind != log_lines::kind::no_meaning;
        }
        out.text = text;
        out.size = static_cast<uint32>(next - text);
        out.count = count;
    }

    zetSmartPointer<IQORSimpleFileReader> m_file;
    const char* m_next = nullptr; // what the reader has handed out and no batch has
    const char* m_end = nullptr;
};
