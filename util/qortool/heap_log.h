// A log that is being read. Lines are read some way ahead of the replay, so that the table's memory is on its
// way to the processor when it is needed. What there is to say of a line is said when its turn comes.
#pragma once

#include "allocation_table.h"
#include "log_ahead.h"
#include "log_batch.h"
#include "qor/qor.h"

#include <optional>
#include <system_error>

template <class LINE>
class heap_log {
public:
    using batch = log_batch<LINE>;
    using entry = typename batch::entry;

    // What is read to its end, whatever happens, may be read ahead by a thread.
    enum class extent { whole, part };

    // With the trace code on, each line is traced with the format when its turn comes. Without a format there is no
    // trace.
    heap_log(uint32 trace_code, const char* trace_format)
        : m_trace_code(trace_code), m_trace_format(trace_format) {}

    bool open(const char* path, extent how_much) {
        m_ahead.reset();
        m_extent = how_much;
        m_first.make();
        set_empty();
        return m_source.open(path);
    }

    bool is_given() const noexcept { return m_source.is_open(); }

    // The next line that means something, or null at the end of the log. Texts in it are valid until the next
    // call.
    const entry* next(allocation_table& table) {
        if (m_trace_format != nullptr && qor::glue::debug_is_on(m_trace_code))
            trace_up_to_next();
        while (m_next == m_batch->count) {
            if (!next_batch(table))
                return nullptr;
            if (m_trace_format != nullptr && qor::glue::debug_is_on(m_trace_code))
                trace_up_to_next();
        }
        // The heads asked for so many lines ago have arrived.
        table.prefetch_head(m_batch->entries[m_next + head_lead].line.address);
        table.prefetch_block(m_batch->entries[m_next + block_lead].line.address);
        return &m_batch->entries[m_next++];
    }

private:
    static constexpr uint32 head_lead = 24;
    static constexpr uint32 block_lead = 12;
    static_assert(head_lead < batch::margin);

    bool next_batch(allocation_table& table) {
        const bool has_more = m_ahead || m_source.has_text();
        // A log that is short needs no thread.
        if (has_more && m_first.size != 0 && m_extent == extent::whole && !m_ahead)
            start_thread();
        if (m_ahead)
            m_batch = m_ahead->next();
        else if (!has_more || !m_source.lend(m_first))
            m_batch = nullptr;
        if (m_batch == nullptr) {
            set_empty();
            return false;
        }
        m_next = 0;
        for (uint32 i = 0; i < head_lead; ++i)
            table.prefetch_head(m_batch->entries[i].line.address);
        for (uint32 i = 0; i < block_lead; ++i)
            table.prefetch_block(m_batch->entries[i].line.address);
        return true;
    }

    void set_empty() noexcept {
        m_batch = &m_first;
        m_next = m_first.count = m_first.size = 0;
    }

    void start_thread() {
        try {
            m_ahead.emplace(m_source);
        } catch (const std::system_error&) {
            m_extent = extent::part;
        }
    }

    // All lines from the one that was next to the one that is, also those without meaning.
    void trace_up_to_next() {
        const auto end_of = [this](uint32 i) { return m_batch->entries[i].end; };
        const char* next = m_batch->text + (m_next != 0 ? end_of(m_next - 1) : 0);
        const char* const end = m_batch->text + (m_next != m_batch->count ? end_of(m_next) : m_batch->size);
        for (std::string_view line; next != end && log_fields::next_line(next, end, line);)
            qorDebug(m_trace_code, m_trace_format, static_cast<int>(line.size()), line.data());
    }

    uint32 m_trace_code;
    const char* m_trace_format;
    extent m_extent = extent::whole;
    log_source<LINE> m_source;
    std::optional<log_ahead<LINE>> m_ahead;
    batch m_first; // of a short log the only one
    const batch* m_batch = &m_first;
    uint32 m_next = 0;
};
