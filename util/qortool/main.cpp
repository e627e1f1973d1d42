// The process entry: the framework's start and end around one action.
//
// Source names and lines in assertions and allocations are constants, so that reports of different versions can be
// compared.
#include "entry.h"
#include "finish_output.h"
#include "qortool_app.h"
#include "secret_arguments.h"

namespace {

constexpr char source[] = "util/qortool/main";

} // namespace

int run_tool(int argc, char* const* argv) {
    remember_arguments(argc, argv);
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
