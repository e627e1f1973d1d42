// A process with a trace code and texts of any bytes, which the environment names: ODD_NAME.
//
//     odd_codes MILLISECONDS [once]
//
// Traces every so many milliseconds until it is killed, with a code of its own name as well ("ticker.tick"), or once.
#include "qor/qor.h"

#include <cstdlib>

int main(int argc, char** argv) {
    qorStringArray args;
    args.SetFromArgVec(argc, argv);
    if (!qorInitProcess("odd_codes", args, 0) || args.IsEmpty()) {
        fputerr(stderr, true);
        return 1;
    }
    const char* const name = std::getenv("ODD_NAME");
    const uint32 odd = qorDebugAllocateCode(name);
    const uint32 ticking = qorDebugAllocateCode("ticker.tick");
    do {
        qorDebug(odd, "%s", name);
        qorDebug(ticking, "tick");
        qorSleep(static_cast<uint32>(std::atoi(args[0])));
    } while (args.GetCount() == 1);
    qorCleanup();
    return 0;
}
