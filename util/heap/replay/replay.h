// Replays an mtrace log, joined with an allocation log of the framework if there is one, or an allocation log alone.
// The replay keeps the table of live blocks and prints nothing: it reports all events to a sink (replay_sink.h).
#pragma once

#include "heap/log/heap_log.h"
#include "heap/log/log_lines.h"
#include "heap/log/text_ids.h"
#include "heap/origin/origin_table.h"
#include "heap/table/allocation_table.h"
#include "heap/table/look_ahead_list.h"
#include "qor/qor.h"
#include "replay_rules.h"
#include "replay_sink.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qor::heap {

// The object contains the head of every bucket (8 MiB), so allocate it on the heap. One object serves one replay at a
// time. Replays share nothing, so each may run in its own thread. Operations that need memory throw std::bad_alloc.
//
// The sink is called directly, not virtually: events that it ignores cost nothing.
template <class SINK, class RULES>
class replay {
public:
    using size_type = typename RULES::size;
    using mtrace_line = log_lines::mtrace_line<size_type>;
    using memcheck_line = log_lines::memcheck_line<size_type>;
    using table = allocation_table<size_type>;
    using mtrace_log = heap_log<mtrace_line>;
    using memcheck_log = heap_log<memcheck_line>;

    // The sink must outlive the replay. The replay traces its scopes, and the lines of an mtrace log, with the sink's
    // trace code.
    replay(SINK& sink, uint32 trace_code)
        : m_sink(sink), m_debug_code(trace_code),
          m_mtrace(trace_code, "mtrace line: [%.*s]", [this] { m_sink.before_wait(); }),
          m_memcheck(trace_code, nullptr, [this] { m_sink.before_wait(); }) {
        static_assert(replay_sink<SINK, size_type>);
    }
    replay(const replay&) = delete;
    replay& operator=(const replay&) = delete;

    // An allocation log that is opened after an mtrace log is joined with it. Return false on failure; the last error
    // says why.
    bool open_mtrace(const char* path) { return m_mtrace.open(path, whole_extent<mtrace_log>()); }
    bool open_memcheck(const char* path) {
        return m_memcheck.open(path, m_mtrace.is_given() ? memcheck_log::extent::part : whole_extent<memcheck_log>());
    }

    // Opens the log that is read to its end, of either kind: its beginning decides. Waits for the beginning. If the
    // result is neither kind, nothing is open, and `beginning` holds the first bytes; without them, the log is empty,
    // or cannot be read, and the last error says why.
    enum class opened : uint8 { failed, mtrace, memcheck, neither };
    opened open(const char* path, std::string& beginning);

    // To be called before opening: the log that is opened first is still being written, and has no end. The sink ends
    // the replay by an exception.
    void follow() noexcept { m_follows = true; }

    // At most so many origins are told apart, see origin_table::set_limit.
    void limit_origins(uint32 most) noexcept { m_origins.set_limit(most); }

    // Reads the open logs to their end.
    void run() {
        if (m_mtrace.is_given())
            run_mtrace();
        else
            run_memcheck();
    }

    // Calls visitor.live_block(block) for each block that has not been released, in the table's order, then
    // visitor.end().
    template <class VISITOR>
    void walk_live_blocks(VISITOR& visitor) const {
        m_table.walk([&](uint64 address, size_type size, uint32 origin) {
            visitor.live_block(block{address, size, origin});
        });
        visitor.end();
    }

    // How much of the first log has been read, in bytes of its file.
    uint64 position() const noexcept { return m_mtrace.is_given() ? m_mtrace.position() : m_memcheck.position(); }

    // Closes the logs and frees all memory of the table and of the data read from the logs. The replay can then be used
    // again. Without this call the table's memory stays in use until the process ends.
    void free_all() {
        m_mtrace.close();
        m_memcheck.close();
        m_table.free_all();
        m_look_ahead = {};
        m_origins = {};
        m_origins_limit = origins_minimum;
        for (std::vector<uint32>& each : m_stack_origins)
            each = {};
        m_callers = {};
        m_places = {};
        m_type_names = {};
    }

    const mtrace_log& mtrace() const noexcept { return m_mtrace; }
    const memcheck_log& memcheck() const noexcept { return m_memcheck; }
    const origin_table& origins() const noexcept { return m_origins; }

private:
    using __entry = typename table::__entry;
    using ahead_record = typename look_ahead_list<size_type>::record;
    using block = heap::block<size_type>;

    // Blocks that the framework mapped directly. They do not come from malloc, so an mtrace log does not contain them.
    static constexpr uint8 huge_block = 3;

    template <class LOG>
    typename LOG::extent whole_extent() const noexcept {
        using extent = typename LOG::extent;
        return m_follows ? extent::followed : RULES::reads_in_thread ? extent::whole_in_thread : extent::whole;
    }

    static constexpr uint32 mtrace_progress = 20;
    static constexpr uint32 memcheck_progress = 100;

    static constexpr std::size_t origins_minimum = 12 * 1024 * 1024;

    void run_mtrace() {
        mtrace_line rec;
        uint32 count = 0;
        if constexpr (stacks_sink<SINK, size_type>)
            if (m_sink.has_stacks())
                m_mtrace.leave_out_ids();
        while (read_mtrace(rec)) {
            if (++count % mtrace_progress == 0)
                m_sink.progress(count);
            if (rec.is_alloc) {
                mtrace_allocation(rec);
            } else {
                if (RULES::join == join_rule::in_time && m_memcheck.is_given())
                    take_end_of_block(rec.address);
                release(rec);
            }
        }
        uint32 leftovers = 0;
        m_look_ahead.walk([&](const ahead_record& left) { leftovers += left.code != 'F'; });
        m_sink.end_of_log(leftovers);
        m_look_ahead.walk([this](const ahead_record& left) { tell_leftover(left); });
    }

    void run_memcheck() {
        memcheck_line rec;
        uint32 count = 0;
        while (read_memcheck_line(rec)) {
            if (++count % memcheck_progress == 0)
                m_sink.progress(count);
            memcheck_record(rec);
        }
        m_sink.end_of_log(0);
    }

    template <class LINE>
    const typename heap_log<LINE>::entry* next_line(heap_log<LINE>& log) {
        if (log.is_used_up())
            m_sink.before_read();
        return log.next(m_table);
    }

    // Reads the next valid record. Unusable lines are skipped, with a warning if they are faulty. Returns false at the
    // end of the log. Texts are valid until the next call.
    bool read_mtrace(mtrace_line& out) {
        const qorDebugSeq trace(m_debug_code, "read_mtrace");
        forget_unused_origins();
        while (const auto* const next = next_line(m_mtrace)) {
            if (next->kind != log_lines::kind::record) {
                m_sink.warning(warning::invalid_mtrace_line, {});
                continue;
            }
            // The code is unknown, but the size tells an allocation from a release.
            if (!next->is_code_known) {
                log_lines::parse(m_mtrace.last_line(), out);
                m_sink.warning(warning::bad_code_token, out.code);
            }
            out.address = next->address;
            out.size = next->size;
            out.is_alloc = next->is_alloc;
            out.is_code_known = next->is_code_known;
            out.caller = {m_mtrace.text() + next->caller_at, next->caller_size};
            out.caller_id = next->caller_id;
            return true;
        }
        qorDebug(m_debug_code, "Cannot read; assume EOF");
        return false;
    }

    bool read_memcheck_line(memcheck_line& out) {
        const qorDebugSeq trace(m_debug_code, "read_memcheck_line");
        forget_unused_origins();
        while (const auto* const next = next_line(m_memcheck)) {
            out = *next;
            if (next->kind == log_lines::kind::record)
                return true;
            if (next->kind == log_lines::kind::too_few_words)
                m_sink.warning(warning::invalid_memcheck_line, {});
            else
                m_sink.warning(warning::unknown_memcheck_code, {&out.code, 1});
        }
        qorDebug(m_debug_code, "Cannot read; assume EOF");
        return false;
    }

    // A slot that is written with address 0 stays blank.
    void tell_allocation(uint64 address, size_type size, uint32 origin) {
        if (address != 0)
            m_sink.allocation(block{address, size, origin});
    }

    void mtrace_allocation(const mtrace_line& rec) {
        const uint32 origin = origin_of(rec);
        if (!m_memcheck.is_given()) {
            m_table.add(rec.address, rec.size, origin);
            return tell_allocation(rec.address, rec.size, origin);
        }
        const __entry entry = m_table.find_blank(rec.address);
        m_table.set(entry, rec.address, rec.size, origin);
        if constexpr (RULES::join == join_rule::in_time)
            join_in_time(entry, rec.address, rec.size);
        else
            mtrace_add_memcheck_data(entry);
        tell_allocation(rec.address, rec.size, m_table.origin(entry));
    }

    uint32 origin_of(const mtrace_line& rec) {
        if constexpr (stacks_sink<SINK, size_type>) {
            const uint32 stack = rec.is_code_known ? m_sink.next_stack() : 0;
            if (stack != 0)
                return origin_of_stack(stack, rec.caller);
        }
        return m_callers.of(rec.caller_id, 0, [&] { return m_origins.of_caller(rec.caller); });
    }

    // The caller is part of the stack: the first one counts.
    uint32 origin_of_stack(uint32 stack, std::string_view caller) {
        std::vector<uint32>& origins = m_stack_origins[stack % 2];
        if (stack / 2 >= origins.size())
            origins.resize(stack / 2 + std::size_t{1}, number_index::none);
        uint32& origin = origins[stack / 2];
        if (origin == number_index::none)
            origin = m_origins.add({.caller = m_origins.text(caller), .stack = stack});
        return origin;
    }

    template <class LINE>
    void release(const LINE& rec) {
        const auto* const released = m_table.release(rec.address);
        if (released == nullptr)
            m_sink.bad_free(rec);
        else if (rec.address != 0)
            m_sink.release(block{rec.address, released->size, released->origin});
    }

    ahead_record keep(const memcheck_line& rec) {
        return {
            rec.code, rec.bt, rec.address, rec.size, rec.line, m_origins.text(rec.file), m_origins.text(rec.type_name)};
    }

    memcheck_line shown(const ahead_record& rec) const {
        return {rec.code,
                rec.address,
                rec.size,
                rec.bt,
                rec.line,
                m_origins.printed(rec.file),
                m_origins.printed(rec.type_name)};
    }

    // A block's release adds nothing to the mtrace log.
    void tell_leftover(const ahead_record& rec) {
        if (rec.code != 'F')
            m_sink.leftover(shown(rec));
    }

    // The bounded look-ahead into the other log. Records met on the way are kept for later, except those that need no
    // partner: huge blocks enter the table at once, and releases add nothing to the mtrace log.
    bool mtrace_read_memcheck_for(uint64 address, ahead_record& out) {
        const qorDebugSeq trace(m_debug_code, "mtrace_read_memcheck_for");
        if (!m_memcheck.is_given())
            return false;
        if (m_look_ahead.take(address, out))
            return true;
        memcheck_line rec;
        while (!m_look_ahead.is_full() && read_memcheck_line(rec)) {
            if (rec.address == address) {
                out = keep(rec);
                return true;
            }
            if (rec.bt == huge_block)
                mtrace_handle_huge_entry(rec);
            else if (rec.code != 'F')
                m_look_ahead.append(keep(rec));
        }
        return false;
    }

    // Deliberately greedy: takes every record for the address within reach; the last of each kind counts. The address
    // is read from the slot, because a slot that was written with address 0 is blank and may be taken by a huge block
    // met on the way.
    void mtrace_add_memcheck_data(const __entry& entry) {
        const qorDebugSeq trace(m_debug_code, "mtrace_add_memcheck_data");
        ahead_record rec;
        while (mtrace_read_memcheck_for(m_table.address(entry), rec)) {
            // A blank slot gets no origin.
            if (m_table.address(entry) == 0)
                continue;
            if (rec.code == 'A')
                set_place(entry, rec.file, rec.line);
            else if (rec.code == 'T')
                set_type_name(entry, rec.type_name);
        }
    }

    // Returns the first untaken record for the address; it stays in the list. Reads on for it while the list has space.
    // Releases take space in the list too.
    const ahead_record* find_ahead(uint64 address) {
        if (const ahead_record* const known = m_look_ahead.find(address))
            return known;
        memcheck_line rec;
        while (!m_look_ahead.is_full() && read_memcheck_line(rec)) {
            if (rec.bt == huge_block) {
                mtrace_handle_huge_entry(rec);
                continue;
            }
            m_look_ahead.append(keep(rec));
            if (rec.address == address)
                return m_look_ahead.find(address);
        }
        return nullptr;
    }

    // The slot holds the address, except for address 0: then the slot is blank and gets no origin.
    void join_in_time(const __entry& entry, uint64 address, size_type size) {
        const qorDebugSeq trace(m_debug_code, "join_in_time");
        bool has_place = false;
        while (const ahead_record* const next = find_ahead(address)) {
            // The block's release, another block at the address, or a block that did not come from the framework.
            if (next->code == 'A' ? has_place || next->size != size : next->code == 'F' && has_place)
                return;
            ahead_record rec;
            m_look_ahead.take(address, rec);
            if (rec.code == 'A') {
                has_place = true;
                pass_by(rec.sequence);
            }
            if (!has_place)
                tell_leftover(rec);
            else if (address != 0 && rec.code == 'A')
                set_place(entry, rec.file, rec.line);
            else if (address != 0)
                set_type_name(entry, rec.type_name);
        }
    }

    // Takes the records behind a block's allocation, up to its release. They belong to no later block.
    void take_end_of_block(uint64 address) {
        ahead_record rec;
        for (const ahead_record* next = m_look_ahead.find(address); next != nullptr && next->code != 'A';
             next = rec.code != 'F' ? m_look_ahead.find(address) : nullptr) {
            m_look_ahead.take(address, rec);
            tell_leftover(rec);
        }
    }

    // Removes records that lie far behind one that has found its partner. Threads may have written the two logs in
    // different orders, but not by as much as half a list.
    void pass_by(uint32 sequence) {
        constexpr uint32 slack = look_ahead_list<size_type>::limit / 2;
        ahead_record rec;
        while (const ahead_record* const first = m_look_ahead.first()) {
            if (static_cast<int32>(sequence - first->sequence) <= static_cast<int32>(slack))
                return;
            m_look_ahead.take(first->address, rec);
            tell_leftover(rec);
        }
    }

    void mtrace_handle_huge_entry(const memcheck_line& rec) {
        const qorDebugSeq trace(m_debug_code, "mtrace_handle_huge_entry");
        if (rec.code == 'A')
            enter_memcheck(rec);
        else if (rec.code == 'F')
            release(rec);
    }

    void memcheck_record(const memcheck_line& rec) {
        __entry entry;
        switch (rec.code) {
        case 'F':
            release(rec);
            break;
        case 'T':
            // No block lives at address 0, although blank slots contain it.
            if (rec.address != 0 && m_table.find_entry(rec.address, entry)) {
                const uint32 before = m_table.origin(entry);
                set_type_name(entry, m_type_names.of(rec.text_id, 0, [&] { return m_origins.text(rec.type_name); }));
                m_sink.origin_changed(block{rec.address, m_table.size(entry), m_table.origin(entry)}, before);
            } else {
                m_sink.warning(warning::unmatched_type_record, {});
            }
            break;
        case 'A':
            enter_memcheck(rec);
            break;
        default:
            // The reader returns no other code today. The warning reports one if that ever changes.
            m_sink.warning(warning::unexpected_memcheck_code, {&rec.code, 1});
            break;
        }
    }

    void enter_memcheck(const memcheck_line& rec) {
        const uint32 origin = m_places.of(rec.text_id, rec.bt, [&] {
            return m_origins.of({.type_name = m_origins.text(rec.type_name),
                                 .file = m_origins.text(rec.file),
                                 .line = rec.line,
                                 .type = rec.bt});
        });
        m_table.add(rec.address, rec.size, origin);
        tell_allocation(rec.address, rec.size, origin);
    }

    void set_place(const __entry& entry, uint32 file, int32 line) {
        origin_table::origin known = m_origins.get(m_table.origin(entry));
        known.file = file;
        known.line = line;
        m_table.set_origin(entry, m_origins.of(known));
    }

    void set_type_name(const __entry& entry, uint32 type_name) {
        origin_table::origin known = m_origins.get(m_table.origin(entry));
        known.type_name = type_name;
        m_table.set_origin(entry, m_origins.of(known));
    }

    // A log may name new callers all the time, so origins without a live block are dropped now and then.
    void forget_unused_origins() {
        if (!RULES::keeps_origins && m_origins.bytes() > m_origins_limit)
            compact_origins();
    }

    [[gnu::noinline]] void compact_origins() {
        origin_table kept;
        std::vector<uint32> numbers(m_origins.count(), number_index::none);
        m_table.renumber_origins([&](uint32 old) {
            if (numbers[old] == number_index::none)
                numbers[old] = kept.adopt(m_origins, old);
            return numbers[old];
        });
        m_look_ahead.walk([&](ahead_record& rec) {
            rec.file = kept.adopt_text(m_origins, rec.file);
            rec.type_name = kept.adopt_text(m_origins, rec.type_name);
        });
        m_origins = std::move(kept);
        for (std::vector<uint32>& each : m_stack_origins)
            each.clear();
        m_callers.forget();
        m_places.forget();
        m_type_names.forget();
        m_origins_limit = std::max(origins_minimum, 2 * m_origins.bytes());
    }

    SINK& m_sink;
    uint32 m_debug_code;
    bool m_follows = false;
    mtrace_log m_mtrace;
    memcheck_log m_memcheck;
    table m_table;
    look_ahead_list<size_type> m_look_ahead;
    origin_table m_origins;
    std::vector<uint32> m_stack_origins[2];        // origins by half the number of a stack, the even ones apart
    text_ids::cache m_callers;                     // origins by caller
    text_ids::cache m_places;                      // origins by file and line, together with the block's type
    text_ids::cache m_type_names;                  // text numbers of m_origins
    std::size_t m_origins_limit = origins_minimum; // bytes of m_origins above which unused origins are dropped
};

template <class SINK, class RULES>
typename replay<SINK, RULES>::opened replay<SINK, RULES>::open(const char* path, std::string& beginning) {
    constexpr std::size_t longest_beginning = 64 * 1024;
    log_source<mtrace_line> source;
    if (!source.open(path, m_follows))
        return opened::failed;
    beginning = source.peek().substr(0, longest_beginning);
    switch (guess_file_kind(beginning).kind) {
    case file_kind::mtrace_log:
        m_mtrace.open(std::move(source), whole_extent<mtrace_log>());
        return opened::mtrace;
    case file_kind::memcheck_log:
        m_memcheck.open(source.template as<memcheck_line>(), whole_extent<memcheck_log>());
        return opened::memcheck;
    default:
        return opened::neither;
    }
}

} // namespace qor::heap
