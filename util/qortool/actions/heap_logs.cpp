// mtrace and memcheck: replay a heap log and report leaks and bad frees.
#include "heap/log/file_kind.h"
#include "heap_report/mtrace_proc.h"
#include "message_names.h"
#include "qortool_app.h"

namespace message = qor::messages::tool;

namespace {

constexpr char source[] = "util/qortool/main";

// Returns the message that names the kind of a file. The message for compressed files takes the name of the program
// that made them.
uint32 name_of(qor::heap::file_kind kind) noexcept {
    using enum qor::heap::file_kind;
    switch (kind) {
    case mtrace_log:
        return message::looks_like_mtrace_log;
    case memcheck_log:
        return message::looks_like_memcheck_log;
    case elf:
        return message::looks_like_elf;
    case compressed:
        return message::looks_compressed;
    case html:
        return message::looks_like_html;
    case utf_16:
        return message::looks_like_utf16;
    case zero_bytes:
        return message::looks_zeroed;
    case blank_lines:
        return message::looks_blank;
    case text:
        return message::looks_like_other_text;
    case binary:
        break;
    }
    return message::looks_binary;
}

// If both streams end in one place, these lines appear after the replay's and before "Done".
template <class... INSERTS>
void warn(uint32 number, const INSERTS&... inserts) {
    std::fflush(stdout);
    fputmsg(stderr, message::catalog, number, inserts...);
    std::fflush(stderr);
}

// If a log cannot be read further, the replay treats it as ended, so some findings may be wrong.
void warn_of_unread_rest(const qorString& failure) {
    if (!failure.IsEmpty())
        warn(message::log_read_in_part, failure);
}

// Findings in such a log have no meaning.
void warn_of_foreign_log(uint32 warning, const char* path, std::string_view beginning, bool is_first_of_two) {
    if (beginning.empty())
        return;
    const qor::heap::file_guess found = qor::heap::guess_file_kind(beginning);
    const bool are_swapped = is_first_of_two && found.kind == qor::heap::file_kind::memcheck_log;
    qorString name;
    name.Format(message::catalog, are_swapped ? message::memcheck_log_in_first_place : name_of(found.kind),
                found.compressor);
    warn(warning, path, name);
}

int finish(bool done, const mtrace_proc& proc, const char* mtrace, const char* memcheck) {
    if (!done) {
        fputerr(stderr, true);
        return 1;
    }
    warn_of_unread_rest(proc.mtrace_failure());
    warn_of_unread_rest(proc.memcheck_failure());
    warn_of_foreign_log(message::not_an_mtrace_log, mtrace, proc.foreign_mtrace(), memcheck != nullptr);
    warn_of_foreign_log(message::not_a_memcheck_log, memcheck, proc.foreign_memcheck(), false);
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
