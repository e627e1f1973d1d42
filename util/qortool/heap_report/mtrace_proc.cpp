#include "mtrace_proc.h"

#include "heap/origin/origin_texts.h"
#include "report_text.h"

#include <string>

namespace {

// The precision for %.*s in messages; a NUL in the text ends the output earlier.
int printed_length(std::string_view text) noexcept { return static_cast<int>(text.size()); }

// Reports the leaks that a walk over the live blocks finds.
class leak_report {
public:
    leak_report(report_streams& streams, const qor::heap::origin_table& origins)
        : m_text(streams), m_origins(origins) {}

    void live_block(const mtrace_proc::block& leak) {
        m_text.add("LEAK at 0x").add_number(leak.address, 16).add(" size ").add_number(leak.size);
        m_text.add(m_origins.of(leak.origin));
        ++m_count;
        m_total += leak.size;
    }

    void end() {
        if (m_count != 0)
            m_text.add("Leaked ").add_number(m_count).add(" objects totalling ").add_number(m_total).add(" bytes\n");
        else
            m_text.add("No leaks found\n");
    }

private:
    report_text m_text;
    qor::heap::origin_texts m_origins;
    uint32 m_count = 0;
    uint64 m_total = 0;
};

} // namespace

mtrace_proc::mtrace_proc(std::FILE* out, std::FILE* err)
    : qorRefObject("qorcore.qortool.mtrace_proc"), m_debug_code(qorDebugAllocateCode("qortool.mtrace")),
      m_streams(out, err), m_replay(*this, m_debug_code) {}

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
    if (!m_replay.open_mtrace(args[0])) {
        qorDebug(m_debug_code, "FAIL cannot open mtrace file");
        return false;
    }
    if (args.GetCount() == 2 && !m_replay.open_memcheck(args[1])) {
        qorDebug(m_debug_code, "FAIL cannot open memcheck file");
        return false;
    }
    fixed_fprintf(m_streams.err(), "Processing mtrace file...\n");
    m_replay.run();
    report_leaks();
    return true;
}

bool mtrace_proc::Execute_MEMCHECK(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "Execute_MEMCHECK");
    if (args.GetCount() != 1) {
        return refuse_words("memcheck", args);
    }
    if (!m_replay.open_memcheck(args[0])) {
        qorDebug(m_debug_code, "FAIL %s", "m_memcheck_file->Open(args[0])");
        return false;
    }
    fixed_fprintf(m_streams.err(), "Processing memcheck file...\n");
    m_replay.run();
    report_leaks();
    return true;
}

void mtrace_proc::warning(qor::heap::warning what, std::string_view text) {
    using enum qor::heap::warning;
    switch (what) {
    case invalid_mtrace_line:
        fixed_fprintf(m_streams.err(), "WARNING Invalid line in mtrace() file\n");
        break;
    case bad_code_token:
        fixed_fprintf(m_streams.err(), "WARNING Bad code token [%.*s]\n", printed_length(text), text.data());
        break;
    case invalid_memcheck_line:
        fixed_fprintf(m_streams.err(), "WARNING Invalid line in memcheck() file\n");
        break;
    case unknown_memcheck_code:
        fixed_fprintf(m_streams.err(), "WARNING Invalid memcheck line code %c\n", text[0]);
        break;
    case unmatched_type_record:
        fixed_fprintf(m_streams.err(), "Unexpected: type record not matched to memory\n");
        break;
    case unexpected_memcheck_code:
        fixed_fprintf(m_streams.err(), "Unexpected memcheck line-type %c\n", text[0]);
        break;
    }
}

void mtrace_proc::end_of_log(uint32 leftovers) {
    fixed_fprintf(m_streams.err(), "\n");
    if (leftovers != 0)
        fixed_fprintf(m_streams.err(), "WARNING %u entries left in memcheck table\n", leftovers);
}

void mtrace_proc::leftover(const __memcheck_line& rec) {
    fixed_fprintf(m_streams.err(), ">> %c mem=0x%llx size=%u bt=%d file=[%.*s] line=%d type=[%.*s]\n", rec.code,
                  rec.address, rec.size, rec.bt, printed_length(rec.file), rec.file.data(), rec.line,
                  printed_length(rec.type_name), rec.type_name.data());
}

void mtrace_proc::report_leaks() {
    const qorDebugSeq trace(m_debug_code, "report_leaks");
    fixed_fprintf(m_streams.err(), "Scanning data...\n");
    leak_report leaks(m_streams, m_replay.origins());
    m_replay.walk_live_blocks(leaks);
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
