// A log that is being read. Lines are parsed some way ahead of the replay, so that the table's memory can be
// prefetched. A line is traced, and a warning about it given, when its turn comes, not when it is parsed.
#pragma once

#include "file_kind.h"
#include "log_ahead.h"
#include "log_batch.h"
#include "qor/qor.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <system_error>

namespace qor::heap {

template <class LINE>
class heap_log {
public:
    using batch = log_batch<LINE>;
    using entry = typename batch::entry;

    // A thread may read ahead only in a log that is always read to its end: when the log turns out to be long, or from
    // the beginning. `followed` is from the beginning too, and the log has no end: somebody still writes it.
    enum class extent { whole, whole_in_thread, followed, part };

    // If the trace code is on, each line is traced with the format when its turn comes. Without a format nothing is
    // traced. next() calls before_wait() before it waits for a line that has not been written yet; while a thread
    // reads ahead, every tenth of a second again.
    heap_log(
        uint32 trace_code, const char* trace_format, std::function<void()> before_wait = [] {})
        : m_trace_code(trace_code), m_trace_format(trace_format), m_before_wait(std::move(before_wait)) {}
    heap_log(const heap_log&) = delete;
    heap_log& operator=(const heap_log&) = delete;

    bool open(const char* path, extent how_much) {
        log_source<LINE> source;
        if (!source.open(path, how_much == extent::followed)) {
            close();
            return false;
        }
        open(std::move(source), how_much);
        return true;
    }

    // The same for a source that is open and of which nothing has been taken.
    void open(log_source<LINE> source, extent how_much) {
        m_ahead.reset();
        m_extent = how_much;
        m_first.make();
        set_empty();
        m_beginning.clear();
        m_has_form = false;
        m_has_ended = false;
        m_failure.Empty();
        m_source = std::move(source);
        tell_before_wait();
    }

    // Ends reading and frees the memory. is_given() then returns false.
    void close() {
        m_ahead.reset();
        m_source.close();
        m_first = {};
        set_empty();
        m_ids = text_ids::assigner(0);
    }

    bool is_given() const noexcept { return m_source.is_open(); }

    // The caller does without the ids of text_ids. To be called before the first line is read.
    void leave_out_ids() noexcept { m_ids.leave_out(); }

    // Returns true if the next line is not in memory yet, so next() may have to wait for it.
    bool is_used_up() const noexcept { return m_next == m_batch->count && m_batch->end == m_batch->size; }

    // Returns the next line with meaning, a record or a faulty line, or null at the end of the log. The line and its
    // texts are valid until the next call. Prefetches the memory of the table (allocation_table) that later lines will
    // need.
    template <class TABLE>
    const entry* next(TABLE& table) {
        if (m_trace_format != nullptr && qor::glue::debug_is_on(m_trace_code)) [[unlikely]]
            trace_up_to_next();
        if (m_next == m_batch->count && !go_on(table)) [[unlikely]]
            return nullptr;
        // The bucket heads that were prefetched this many lines ago have arrived.
        table.prefetch_head(m_batch->entries[m_next + head_lead].address);
        table.prefetch_block(m_batch->entries[m_next + block_lead].address);
        return &m_batch->entries[m_next++];
    }

    // Returns the beginning of the log if it is not a log of this kind: no line has the form of such a log, or the file
    // begins like something other than text. Otherwise the result is empty.
    std::string_view foreign_beginning() const noexcept { return m_has_form ? std::string_view() : m_beginning; }

    // How much of the file has been read, in bytes of it; the replay is a little behind.
    uint64 position() const noexcept { return m_source.position(); }

    // The reason why the log was not read to its end; empty if it was.
    const qorString& failure() const noexcept { return m_failure; }

    // The text of the batch that contains the last line.
    const char* text() const noexcept { return m_batch->text; }

    // The last line, without white space at both ends.
    std::string_view last_line() const noexcept {
        const uint32 end = m_batch->entries[m_next - 1].end;
        const std::size_t before = std::string_view(m_batch->text, end - 1).rfind('\n');
        const char* next = m_batch->text + (before + 1);
        std::string_view line;
        log_fields::next_line(next, m_batch->text + end, line);
        return line;
    }

private:
    static constexpr uint32 head_lead = 24;
    static constexpr uint32 block_lead = 12;
    static_assert(head_lead < batch::margin);

    // Enough bytes to recognise the kind of a file.
    static constexpr std::size_t longest_beginning = 1024;

    // Advances to the next lines with meaning.
    template <class TABLE>
    [[gnu::noinline]] bool go_on(TABLE& table) {
        while (m_next == m_batch->count) {
            if (!m_batch->parse_on(m_ids) && !next_batch())
                return false;
            begin_batch(table);
            if (m_trace_format != nullptr && qor::glue::debug_is_on(m_trace_code))
                trace_up_to_next();
        }
        return true;
    }

    bool next_batch() {
        if ((m_extent == extent::whole_in_thread || m_extent == extent::followed) && !m_ahead)
            start_thread();
        const bool has_more = m_ahead || m_source.has_text();
        // A short log needs no thread.
        if (has_more && m_first.size != 0 && m_extent == extent::whole && !m_ahead)
            start_thread();
        if (m_ahead)
            m_batch = m_ahead->next(m_before_wait);
        else if (!has_more || !m_source.borrow_batch(m_first, m_ids))
            m_batch = nullptr;
        if (m_batch == nullptr) {
            set_empty();
            note_end();
            return false;
        }
        m_has_ended = false;
        return true;
    }

    // A joined log is asked for more at each allocation, but its end is examined only once.
    void note_end() {
        if (!m_has_ended && qorGetLastError(m_failure) == qorError_none)
            m_failure.Empty();
        m_has_ended = true;
    }

    template <class TABLE>
    void begin_batch(TABLE& table) {
        m_next = 0;
        if (!m_has_form) [[unlikely]]
            look_for_form();
        if (m_batch->count == 0)
            return;
        for (uint32 i = 0; i < head_lead; ++i)
            table.prefetch_head(m_batch->entries[i].address);
        for (uint32 i = 0; i < block_lead; ++i)
            table.prefetch_block(m_batch->entries[i].address);
    }

    void tell_before_wait() {
        m_source.set_before_wait([](void* self) { static_cast<heap_log*>(self)->m_before_wait(); }, this);
    }

    void look_for_form() {
        const char* next = m_batch->text + m_batch->begin;
        const char* const end = m_batch->text + m_batch->end;
        m_beginning.append(
            next, std::min<std::size_t>(longest_beginning - m_beginning.size(), static_cast<std::size_t>(end - next)));
        if (has_foreign_signature(m_beginning))
            return;
        for (std::string_view line; !m_has_form && log_fields::next_line(next, end, line);)
            m_has_form = LINE::has_form(line);
    }

    void set_empty() noexcept {
        m_batch = &m_first;
        m_first.set_text(nullptr, 0);
        m_next = 0;
    }

    // From then on the reading thread does the waiting, and it has nothing to flush.
    void start_thread() {
        try {
            m_source.set_before_wait(nullptr, nullptr);
            m_ahead.emplace(m_source, m_ids.is_left_out());
        } catch (const std::system_error&) {
            tell_before_wait();
            m_extent = extent::part;
        }
    }

    // Traces all lines after the last returned one up to the next one, including those without meaning.
    void trace_up_to_next() {
        const auto end_of = [this](uint32 i) { return m_batch->entries[i].end; };
        const char* next = m_batch->text + (m_next != 0 ? end_of(m_next - 1) : m_batch->begin);
        const char* const end = m_batch->text + (m_next != m_batch->count ? end_of(m_next) : m_batch->end);
        for (std::string_view line; next != end && log_fields::next_line(next, end, line);)
            qorDebug(m_trace_code, m_trace_format, static_cast<int>(line.size()), line.data());
    }

    uint32 m_trace_code;
    const char* m_trace_format;
    std::function<void()> m_before_wait;
    extent m_extent = extent::whole;
    text_ids::assigner m_ids{0};
    log_source<LINE> m_source;
    std::optional<log_ahead<LINE>> m_ahead;
    batch m_first; // the only batch of a short log
    batch* m_batch = &m_first;
    uint32 m_next = 0;
    std::string m_beginning;
    bool m_has_form = false;
    bool m_has_ended = false;
    qorString m_failure;
};

} // namespace qor::heap
