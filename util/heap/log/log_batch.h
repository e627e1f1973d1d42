// Some lines of a log that are read together: their text and their entries.
#pragma once

#include "decompressing_filter.h"
#include "following_filter.h"
#include "log_fields.h"
#include "log_lines.h"
#include "qor/qor.h"
#include "text_ids.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

namespace qor::heap {

template <class LINE>
struct log_batch {
    using entry = log_lines::entry<LINE>;

    // The maximum number of lines that are parsed at a time.
    static constexpr uint32 limit = 1024;

    // Readable entries behind the last one, so that a look-ahead shorter than this needs no check.
    static constexpr uint32 margin = 32;

    const char* text = nullptr;
    uint32 size = 0;

    // The part of the text that is parsed: [begin, end).
    uint32 begin = 0;
    uint32 end = 0;
    uint32 count = 0;
    std::vector<entry> entries;

    // True if the text belongs to the reader and is valid only until it reads on.
    bool is_borrowed = false;

    // True if the text is the beginning of a line that is too long for a record.
    bool is_cut = false;

    // The batch's own text. It is large enough to make the cost of passing a batch on negligible, and small enough for
    // the caches to hold several.
    static constexpr std::size_t own_size = 64 * 1024;
    std::vector<char> own;

    void set_text(const char* lines, std::size_t length) noexcept {
        text = lines;
        size = static_cast<uint32>(length);
        begin = end = count = 0;
        is_cut = false;
    }

    // Replaces the entries with those of the text's next lines. Returns false if no lines are left.
    bool parse_on(text_ids::assigner& ids) {
        if (end == size)
            return false;
        begin = end;
        const char* next = text + begin;
        count = log_lines::parse_lines<LINE>(text, next, text + size, entries.data(), limit);
        end = static_cast<uint32>(next - text);
        if (is_cut && count != 0)
            entries[0].kind = log_lines::kind::too_few_words;
        if (!is_cut && !ids.is_left_out())
            assign_ids(ids);
        return true;
    }

    // First collects the lines with a text, without a branch, because their order cannot be predicted.
    void assign_ids(text_ids::assigner& ids) {
        uint32 with_text[limit];
        uint32 found = 0;
        for (uint32 i = 0; i < count; ++i) {
            with_text[found] = i;
            found += has_text(entries[i]);
        }
        for (uint32 i = 0; i < found; ++i)
            assign_id(ids, entries[with_text[i]]);
    }

    template <class SIZE>
    static bool has_text(const log_lines::entry<log_lines::mtrace_line<SIZE>>& of) noexcept {
        return of.is_alloc;
    }
    template <class SIZE>
    static bool has_text(const log_lines::entry<log_lines::memcheck_line<SIZE>>& of) noexcept {
        return of.code != 'F';
    }

    template <class SIZE>
    void assign_id(text_ids::assigner& ids, log_lines::entry<log_lines::mtrace_line<SIZE>>& to) const {
        to.caller_id = ids.of({text + to.caller_at, to.caller_size});
    }
    template <class SIZE>
    void assign_id(text_ids::assigner& ids, log_lines::entry<log_lines::memcheck_line<SIZE>>& to) const {
        std::string_view all = to.type_name;
        if (!to.file.empty())
            all = {to.file.data(), static_cast<std::size_t>(text + to.end - to.file.data())};
        to.text_id = ids.of(all);
    }

    // Allocates the memory of a batch that will be used.
    void make() { entries.resize(limit + margin); }
    void make_with_text() {
        make();
        own.resize(own_size + qorReadLinesPadding);
    }
};

// Makes batches of a log, which may be compressed. Copies read the same file.
template <class LINE>
class log_source {
public:
    using batch = log_batch<LINE>;

    // `follows`: somebody still writes the log, so more may follow behind its end.
    bool open(const char* path, bool follows = false) {
        create_IQORSimpleFileReader(m_file.Out());
        m_next = m_end = nullptr;
        if (!m_file->Open(path, 0))
            return false;
        m_position = std::make_shared<std::atomic<uint64>>(0);
        m_follows = follows;
        if (follows)
            m_filter = set_filter<following_filter>(path);
        else
            m_filter = m_decompressor = set_filter<decompressing_filter>(path);
        return true;
    }

    void close() {
        m_file.Empty();
        m_filter.reset();
        m_decompressor.reset();
        m_next = m_end = nullptr;
    }

    // A source of which nothing has been taken may turn out to be one of other lines.
    template <class OTHER>
    log_source<OTHER> as() const {
        log_source<OTHER> other;
        other.m_position = m_position;
        other.m_filter = m_filter;
        other.m_decompressor = m_decompressor;
        other.m_file = m_file;
        other.m_next = m_next;
        other.m_end = m_end;
        other.m_is_cut = m_is_cut;
        other.m_follows = m_follows;
        return other;
    }

    // The next lines, which stay where they are. Empty at the end, or if nothing can be read.
    std::string_view peek() {
        return has_text() ? std::string_view(m_next, static_cast<std::size_t>(m_end - m_next)) : std::string_view();
    }

    // How much of the file has been read, in bytes of it.
    uint64 position() const noexcept { return m_position ? m_position->load(std::memory_order_relaxed) : 0; }

    // See IQORSimpleFileReader::SetBeforeWait.
    void set_before_wait(void (*tell)(void* context), void* context) { m_file->SetBeforeWait(tell, context); }

    bool is_open() const noexcept { return !m_file.IsEmpty(); }
    bool follows() const noexcept { return m_follows; }

    // Returns true if lines follow, and reads them. Returns false if there are no more lines or they cannot be read. In
    // the second case the last error says why; in the first there is no last error.
    bool has_text() {
        if (m_next == m_end) {
            uint64 size = 0;
            qorClearLastError();
            m_is_cut = !m_file->ReadLines(&m_next, &size);
            m_end = m_next + size;
            note_position(size);
        }
        return m_next != m_end;
    }

    // Sets `out` to the next lines, parsed. Their text belongs to the reader and is valid until it reads on. Returns
    // false as has_text() does.
    bool borrow_batch(batch& out, text_ids::assigner& ids) {
        if (!has_text())
            return false;
        out.is_borrowed = true;
        out.set_text(m_next, static_cast<std::size_t>(m_end - m_next));
        out.is_cut = m_is_cut;
        out.parse_on(ids);
        out.size = out.end;
        m_next += out.size;
        return true;
    }

    // Copies the next lines into the batch's own text, which make_with_text() has allocated; borrows them if the first
    // line is too long for it. Parses them if `parsed` is true. Returns false as has_text() does.
    bool copy_batch(batch& out, bool parsed, text_ids::assigner& ids) {
        if (!has_text())
            return false;
        const std::string_view piece(m_next, std::min<std::size_t>(batch::own_size, m_end - m_next));
        const std::size_t size = piece.rfind('\n') + 1;
        if (size == 0 || m_is_cut)
            return borrow_batch(out, ids);
        out.is_borrowed = false;
        std::memcpy(out.own.data(), m_next, size);
        out.set_text(out.own.data(), size);
        m_next += size;
        if (parsed)
            out.parse_on(ids);
        return true;
    }

private:
    template <class FILTER>
    std::shared_ptr<FILTER> set_filter(const char* path) {
        auto filter = std::make_shared<FILTER>(path);
        m_file->SetFilter(filter.get());
        return filter;
    }

    void note_position(uint64 size) noexcept {
        const uint64 raw = m_decompressor ? m_decompressor->position() : 0;
        m_position->store(raw != 0 ? raw : m_position->load(std::memory_order_relaxed) + size,
                          std::memory_order_relaxed);
    }

    template <class OTHER>
    friend class log_source;

    std::shared_ptr<std::atomic<uint64>> m_position;      // of all copies
    std::shared_ptr<void> m_filter;                       // the file's, which it outlives
    std::shared_ptr<decompressing_filter> m_decompressor; // the same, if it is one
    zetSmartPointer<IQORSimpleFileReader> m_file;
    const char* m_next = nullptr; // handed out by the reader, not yet in a batch
    const char* m_end = nullptr;
    bool m_is_cut = false; // the text is the beginning of a line that is too long
    bool m_follows = false;
};

} // namespace qor::heap
