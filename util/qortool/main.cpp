// The process entry: the framework's start and end around one action.
//
// Source names and lines in assertions and allocations are constants: reports compare across versions.
#include "entry.h"
#include "qortool_app.h"
#include "visible_arguments.h"

#include <cerrno>
#include <cstring>

namespace {

constexpr char source[] = "util/qortool/main";

// A result that could not be written is a failure, whatever the action thought of it: a full disk or a closed
// output must not look like a clean report.
int finish_output(int code) {
    errno = 0;
    const bool flushed = std::fflush(stdout) == 0;
    const int reason = errno;
    if (flushed && std::ferror(stdout) == 0)
        return code;
    if (reason != 0)
        fputmsg(stderr, "qorcore", 1022, std::strerror(reason));
    else
        fputmsg(stderr, "qorcore", 1023, true);
    return code == 0 ? 1 : code;
}

} // namespace

int run_tool(int argc, char* const* argv) {
    keep_arguments(argc, argv);
    qorStringArray args;
    args.SetFromArgVec(argc, argv);
    if (!qorInitProcess("qortool", args, 0)) {
        zetSmartPointer<IQORErrorMessage> err;
        qorGetLastError(err.Out());
        if (!err->IsError())
            qorAssertFailed("err->IsError()", "int main(int, char* const*)", source, 38);
        err->Report();
        return 1;
    }
    int code;
    {
        zetSmartPointer<qortool_app> app;
        app.AttachNew(new (source, 55) qortool_app);
        code = app->Main(args);
    }
    code = finish_output(code);
    qorCleanup();
    return code;
}
