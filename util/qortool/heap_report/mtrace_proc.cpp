#include "mtrace_proc.h"

#include "heap/origin/origin_texts.h"
#include "report_text.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

mtrace_proc::mtrace_proc(std::FILE* out, std::FILE* err)
    : qorRefObject("qorcore.qortool.mtrace_proc"), m_debug_code(qorDebugAllocateCode("qortool.mtrace")),
      m_mtrace_file(m_debug_code, "mtrace line: [%.*s]", [this] { m_streams.before_wait(); }),
      m_memcheck_file(m_debug_code, nullptr, [this] { m_streams.before_wait(); }), m_streams(out, err) {}

bool mtrace_proc::refuse_words(const char* action, const qorStringArray& args) {
    fixed_fprintf(m_streams.err(), "ERROR wrong number of arguments\n");
    qorSetLastError(qorError_wrong_word_count, action, std::to_string(args.GetCount()).c_str());
    return false;
}

bool mtrace_proc::Execute_MTRACE(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "Execute_MTRACE");
    if (args.IsEmpty() || args.GetCount() > 2) {
        return refuse_words("mtrace", args);
    }
    if (!m_mtrace_file.open(args[0], qor::heap::heap_log<__mtrace_line>::extent::whole)) {
        qorDebug(m_debug_code, "FAIL cannot open mtrace file");
        return false;
    }
    if (args.GetCount() == 2 && !m_memcheck_file.open(args[1], qor::heap::heap_log<__memcheck_line>::extent::part)) {
        qorDebug(m_debug_code, "FAIL cannot open memcheck file");
        return false;
    }
    fixed_fprintf(m_streams.err(), "Processing mtrace file...\n");
    __mtrace_line rec;
    uint32 count = 0;
    while (read_mtrace(rec)) {
        if (++count % 20 == 0)
            m_streams.progress(count);
        if (rec.is_alloc)
            mtrace_allocation(rec);
        else if (!m_table.release(rec.address))
            report_free_without_alloc(rec);
    }
    fixed_fprintf(m_streams.err(), "\n");
    list_look_ahead();
    report_leaks();
    return true;
}

void mtrace_proc::mtrace_allocation(const __mtrace_line& rec) {
    const uint32 origin = m_callers.of(rec.caller_number, 0, [&] { return m_origins.of_caller(rec.caller); });
    if (!m_memcheck_file.is_given())
        return m_table.add(rec.address, rec.size, origin);
    const __entry entry = m_table.find_blank(rec.address);
    m_table.set(entry, rec.address, rec.size, origin);
    mtrace_add_memcheck_data(entry);
}

qor::heap::look_ahead_list::record mtrace_proc::keep(const __memcheck_line& rec) {
    return {rec.code, rec.bt, rec.address, rec.size, rec.line, m_origins.text(rec.file), m_origins.text(rec.type_name)};
}

// The bounded look-ahead into the other log. What it meets on the way is kept for later, except what needs no
// partner: huge blocks enter the table at once, and frees say nothing that the mtrace log does not.
bool mtrace_proc::mtrace_read_memcheck_for(uint64 address, qor::heap::look_ahead_list::record& out) {
    const qorDebugSeq trace(m_debug_code, "mtrace_read_memcheck_for");
    if (!m_memcheck_file.is_given())
        return false;
    if (m_look_ahead.take(address, out))
        return true;
    __memcheck_line rec;
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

// Greedy on purpose: takes every record for the address within reach, the last of each kind counts. The slot says
// for which: one that was written with address 0 is blank, and a huge block met on the way may take it.
void mtrace_proc::mtrace_add_memcheck_data(const __entry& entry) {
    const qorDebugSeq trace(m_debug_code, "mtrace_add_memcheck_data");
    qor::heap::look_ahead_list::record rec;
    while (mtrace_read_memcheck_for(m_table.address(entry), rec)) {
        // A blank slot comes from nowhere.
        if (m_table.address(entry) == 0)
            continue;
        if (rec.code == 'A') {
            qor::heap::origin_table::origin known = m_origins.get(m_table.origin(entry));
            known.file = rec.file;
            known.line = rec.line;
            m_table.set_origin(entry, m_origins.of(known));
        } else if (rec.code == 'T') {
            set_type_name(entry, rec.type_name);
        }
    }
}

void mtrace_proc::mtrace_handle_huge_entry(const __memcheck_line& rec) {
    const qorDebugSeq trace(m_debug_code, "mtrace_handle_huge_entry");
    if (rec.code == 'A')
        enter_memcheck(rec);
    else if (rec.code == 'F' && !m_table.release(rec.address))
        report_free_without_alloc(rec);
}

void mtrace_proc::enter_memcheck(const __memcheck_line& rec) {
    const uint32 origin = m_places.of(rec.number, rec.bt, [&] {
        return m_origins.of({0, m_origins.text(rec.type_name), m_origins.text(rec.file), rec.line, rec.bt});
    });
    m_table.add(rec.address, rec.size, origin);
}

void mtrace_proc::set_type_name(const __entry& entry, uint32 type_name) {
    qor::heap::origin_table::origin known = m_origins.get(m_table.origin(entry));
    known.type_name = type_name;
    m_table.set_origin(entry, m_origins.of(known));
}

void mtrace_proc::renew_origins() {
    qor::heap::origin_table kept;
    std::vector<uint32> numbers(m_origins.count(), qor::heap::number_index::none);
    m_table.renumber_origins([&](uint32 old) {
        if (numbers[old] == qor::heap::number_index::none)
            numbers[old] = kept.adopt(m_origins, old);
        return numbers[old];
    });
    m_look_ahead.walk([&](qor::heap::look_ahead_list::record& rec) {
        rec.file = kept.adopt_text(m_origins, rec.file);
        rec.type_name = kept.adopt_text(m_origins, rec.type_name);
    });
    m_origins = std::move(kept);
    m_callers.forget();
    m_places.forget();
    m_type_names.forget();
    m_origins_limit = std::max(origins_minimum, 2 * m_origins.bytes());
}

void mtrace_proc::list_look_ahead() {
    if (m_look_ahead.is_empty())
        return;
    fixed_fprintf(m_streams.err(), "WARNING %u entries left in memcheck table\n", m_look_ahead.count());
    m_look_ahead.walk([this](const qor::heap::look_ahead_list::record& rec) {
        const std::string_view file = m_origins.printed(rec.file);
        const std::string_view type_name = m_origins.printed(rec.type_name);
        fixed_fprintf(m_streams.err(), ">> %c mem=0x%llx size=%u bt=%d file=[%.*s] line=%d type=[%.*s]\n", rec.code,
                      rec.address, rec.size, rec.bt, static_cast<int>(file.size()), file.data(), rec.line,
                      static_cast<int>(type_name.size()), type_name.data());
    });
}

bool mtrace_proc::Execute_MEMCHECK(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "Execute_MEMCHECK");
    if (args.GetCount() != 1) {
        return refuse_words("memcheck", args);
    }
    if (!m_memcheck_file.open(args[0], qor::heap::heap_log<__memcheck_line>::extent::whole)) {
        qorDebug(m_debug_code, "FAIL %s", "m_memcheck_file->Open(args[0])");
        return false;
    }
    fixed_fprintf(m_streams.err(), "Processing memcheck file...\n");
    __memcheck_line rec;
    uint32 count = 0;
    while (read_memcheck_line(rec)) {
        if (++count % 100 == 0)
            m_streams.progress(count);
        memcheck_record(rec);
    }
    fixed_fprintf(m_streams.err(), "\n");
    report_leaks();
    return true;
}

void mtrace_proc::memcheck_record(const __memcheck_line& rec) {
    __entry entry;
    switch (rec.code) {
    case 'F':
        if (!m_table.release(rec.address))
            report_free_without_alloc(rec);
        break;
    case 'T':
        // No block lives at address 0, whatever the blank slots hold.
        if (rec.address != 0 && m_table.find_entry(rec.address, entry))
            set_type_name(entry, m_type_names.of(rec.number, 0, [&] { return m_origins.text(rec.type_name); }));
        else
            fixed_fprintf(m_streams.err(), "Unexpected: type record not matched to memory\n");
        break;
    case 'A':
        enter_memcheck(rec);
        break;
    default:
        // The reader yields no other code; this says so should it ever learn one.
        fixed_fprintf(m_streams.err(), "Unexpected memcheck line-type %c\n", rec.code);
        break;
    }
}

void mtrace_proc::report_leaks() {
    const qorDebugSeq trace(m_debug_code, "report_leaks");
    fixed_fprintf(m_streams.err(), "Scanning data...\n");
    uint32 count = 0;
    uint64 total = 0;
    {
        report_text text(m_streams);
        qor::heap::origin_texts origins(m_origins);
        m_table.walk([&](uint64 address, uint32 size, uint32 origin) {
            text.add("LEAK at 0x").add_number(address, 16).add(" size ").add_number(size).add(origins.of(origin));
            ++count;
            total += size;
        });
    }
    if (count != 0)
        fixed_fprintf(m_streams.out(), "Leaked %u objects totalling %llu bytes\n", count, total);
    else
        fixed_fprintf(m_streams.out(), "No leaks found\n");
}

void mtrace_proc::report_free_without_alloc(const __mtrace_line& rec) {
    const qorDebugSeq trace(m_debug_code, "report_free_without_alloc");
    fixed_fprintf(m_streams.out(), "BAD FREE at 0x%llx (not allocated)\n", rec.address);
}

void mtrace_proc::report_free_without_alloc(const __memcheck_line& rec) {
    const qorDebugSeq trace(m_debug_code, "report_free_without_alloc");
    fixed_fprintf(m_streams.out(), "BAD FREE at 0x%llx (not allocated) - file=[%s] line=%d\n", rec.address, "",
                  rec.line);
}
