#include "mtrace_proc.h"

#include <algorithm>
#include <charconv>
#include <string>

namespace {

std::string_view view(const qorString& text) noexcept { return {text.Text(), text.Length()}; }

template <class NUMBER>
void append(std::string& line, NUMBER number, int base = 10) {
    char digits[24];
    line.append(digits, std::to_chars(digits, digits + sizeof digits, number, base).ptr);
}

} // namespace

mtrace_proc::mtrace_proc()
    : qorRefObject("qorcore.qortool.mtrace_proc"), m_debug_code(qorDebugAllocateCode("qortool.mtrace")) {}

bool mtrace_proc::Execute_MTRACE(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "Execute_MTRACE");
    if (args.IsEmpty() || args.GetCount() > 2) {
        fixed_fprintf(m_streams.err(), "ERROR wrong number of arguments\n");
        return false;
    }
    if (!m_mtrace_file.open(args[0])) {
        qorDebug(m_debug_code, "FAIL cannot open mtrace file");
        return false;
    }
    if (args.GetCount() == 2 && !m_memcheck_file.open(args[1])) {
        qorDebug(m_debug_code, "FAIL cannot open memcheck file");
        return false;
    }
    fixed_fprintf(m_streams.err(), "Processing mtrace file...\n");
    __mtrace_line rec;
    uint32 count = 0;
    while (read_mtrace(rec)) {
        if (++count % 20 == 0)
            fixed_fprintf(m_streams.err(), "%u\r", count);
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
    const __entry entry = m_table.find_blank(rec.address);
    m_table.set(entry, rec.address, rec.size, m_origins.of_caller(view(rec.caller)));
    if (m_memcheck_file.is_given())
        mtrace_add_memcheck_data(entry);
}

// The bounded look-ahead into the other log. What it meets on the way is kept for later, except what needs no
// partner: huge blocks enter the table at once, and frees say nothing that the mtrace log does not.
bool mtrace_proc::mtrace_read_memcheck_for(uint64 address, __memcheck_line& out) {
    const qorDebugSeq trace(m_debug_code, "mtrace_read_memcheck_for");
    if (!m_memcheck_file.is_given())
        return false;
    const __memcheck_line* const found =
        std::find_if(m_look_ahead.begin(), m_look_ahead.end(),
                     [address](const __memcheck_line& known) { return known.address == address; });
    if (found != m_look_ahead.end()) {
        out = *found;
        m_look_ahead.RemoveAt(static_cast<uint32>(found - m_look_ahead.begin()), 1);
        return true;
    }
    if (m_look_ahead.GetCount() >= look_ahead_limit)
        return false;
    while (read_memcheck_line(out)) {
        if (out.address == address)
            return true;
        if (out.bt == huge_block)
            mtrace_handle_huge_entry(out);
        else if (out.code != 'F')
            m_look_ahead.Append(out);
        if (m_look_ahead.GetCount() >= look_ahead_limit)
            return false;
    }
    return false;
}

// Greedy on purpose: takes every record for the address within reach, the last of each kind counts. The slot says
// for which: one that was written with address 0 is blank, and a huge block met on the way may take it.
void mtrace_proc::mtrace_add_memcheck_data(const __entry& entry) {
    const qorDebugSeq trace(m_debug_code, "mtrace_add_memcheck_data");
    __memcheck_line rec;
    while (mtrace_read_memcheck_for(m_table.address(entry), rec)) {
        if (rec.code == 'A') {
            origin_table::origin known = m_origins.get(m_table.origin(entry));
            known.file = view(rec.file);
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
    const uint32 origin = m_origins.of({{}, view(rec.type_name), view(rec.file), rec.line, rec.bt});
    m_table.set(m_table.find_blank(rec.address), rec.address, rec.size, origin);
}

void mtrace_proc::set_type_name(const __entry& entry, const qorString& type_name) {
    origin_table::origin known = m_origins.get(m_table.origin(entry));
    known.type_name = view(type_name);
    m_table.set_origin(entry, m_origins.of(known));
}

void mtrace_proc::list_look_ahead() {
    if (m_look_ahead.IsEmpty())
        return;
    fixed_fprintf(m_streams.err(), "WARNING %u entries left in memcheck table\n", m_look_ahead.GetCount());
    for (const __memcheck_line& rec : m_look_ahead)
        fixed_fprintf(m_streams.err(), ">> %c mem=0x%llx size=%u bt=%d file=[%s] line=%d type=[%s]\n", rec.code,
                      rec.address, rec.size, rec.bt, rec.file.Text(), rec.line, rec.type_name.Text());
}

bool mtrace_proc::Execute_MEMCHECK(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "Execute_MEMCHECK");
    if (args.GetCount() != 1) {
        fixed_fprintf(m_streams.err(), "ERROR wrong number of arguments\n");
        return false;
    }
    if (!m_memcheck_file.open(args[0])) {
        qorDebug(m_debug_code, "FAIL %s", "m_memcheck_file->Open(args[0])");
        return false;
    }
    fixed_fprintf(m_streams.err(), "Processing memcheck file...\n");
    __memcheck_line rec;
    uint32 count = 0;
    while (read_memcheck_line(rec)) {
        if (++count % 100 == 0)
            fixed_fprintf(m_streams.err(), "%u\r", count);
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
            set_type_name(entry, rec.type_name);
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
    std::string line;
    m_table.walk([&](uint64 address, uint32 size, uint32 origin) {
        // Put together by hand: there may be millions of these, and printf takes four times as long. A NUL in a
        // text ends it here too.
        const origin_table::origin from = m_origins.get(origin);
        append(line.assign("LEAK at 0x"), address, 16);
        append(line.append(" size "), size);
        append(line.append(" type "), uint32{from.type});
        line.append(" caller [").append(from.caller.data());
        line.append("] type_name [").append(from.type_name.data());
        line.append("] file [").append(from.file.data());
        append(line.append("] line "), from.line);
        line += '\n';
        std::fwrite(line.data(), 1, line.size(), m_streams.out());
        ++count;
        total += size;
    });
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
    fixed_fprintf(m_streams.out(), "BAD FREE at 0x%llx (not allocated) - file=[%s] line=%d\n", rec.address,
                  rec.file.Text(), rec.line);
}
