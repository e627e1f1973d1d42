// mtrace and memcheck: replay a heap log and report leaks and bad frees.
#include "mtrace_proc.h"
#include "qortool_app.h"

namespace {

constexpr char source[] = "util/qortool/main";

int finish(bool done) {
    if (!done) {
        fputerr(stderr, true);
        return 1;
    }
    fixed_fprintf(stdout, "Done\n");
    return 0;
}

} // namespace

int qortool_app::func_mtrace(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "func_mtrace");
    zetSmartPointer<mtrace_proc> proc;
    proc.AttachNew(new (source, 1214) mtrace_proc);
    return finish(proc->Execute_MTRACE(args));
}

int qortool_app::func_memcheck(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "func_memcheck");
    zetSmartPointer<mtrace_proc> proc;
    proc.AttachNew(new (source, 1238) mtrace_proc);
    return finish(proc->Execute_MEMCHECK(args));
}
