// mtrace and memcheck: replay a heap log and report leaks and bad frees.
#include "heap/log/file_kind.h"
#include "heap_report/mtrace_proc.h"
#include "qortool_app.h"

namespace {

constexpr char source[] = "util/qortool/main";

constexpr uint32 no_mtrace_log = 92;
constexpr uint32 no_memcheck_log = 93;
constexpr uint32 memcheck_log_in_first_place = 96;
constexpr uint32 read_in_part = 105;

// What the replay has said comes before these lines, and "Done" behind them, where both streams end in one place.
template <class... INSERTS>
void warn(uint32 message, const INSERTS&... inserts) {
    std::fflush(stdout);
    fputmsg(stderr, "qortool", message, inserts...);
    std::fflush(stderr);
}

// To the replay a log ends where it cannot be read; leaks and bad frees may then be none.
void warn_of_unread_rest(const qorString& failure) {
    if (!failure.IsEmpty())
        warn(read_in_part, failure);
}

// What was found in such a log means nothing.
void warn_of_foreign_log(uint32 message, const char* path, std::string_view beginning, bool is_first_of_two) {
    if (beginning.empty())
        return;
    const qor::heap::looks found = qor::heap::looks_of(beginning);
    const bool are_swapped = is_first_of_two && found.kind == qor::heap::file_kind::memcheck_log;
    qorString name;
    name.Format("qortool", are_swapped ? memcheck_log_in_first_place : static_cast<uint32>(found.kind), found.program);
    warn(message, path, name);
}

int finish(bool done, const mtrace_proc& proc, const char* mtrace, const char* memcheck) {
    if (!done) {
        fputerr(stderr, true);
        return 1;
    }
    warn_of_unread_rest(proc.mtrace_failure());
    warn_of_unread_rest(proc.memcheck_failure());
    warn_of_foreign_log(no_mtrace_log, mtrace, proc.foreign_mtrace(), memcheck != nullptr);
    warn_of_foreign_log(no_memcheck_log, memcheck, proc.foreign_memcheck(), false);
    fixed_fprintf(stdout, "Done\n");
    return 0;
}

} // namespace

int qortool_app::func_mtrace(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "func_mtrace");
    zetSmartPointer<mtrace_proc> proc;
    proc.AttachNew(new (source, 1214) mtrace_proc);
    const bool done = proc->Execute_MTRACE(args);
    return finish(done, **proc, done ? args[0] : nullptr, args.GetCount() > 1 ? args[1] : nullptr);
}

int qortool_app::func_memcheck(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "func_memcheck");
    zetSmartPointer<mtrace_proc> proc;
    proc.AttachNew(new (source, 1238) mtrace_proc);
    const bool done = proc->Execute_MEMCHECK(args);
    return finish(done, **proc, nullptr, done ? args[0] : nullptr);
}
