// A process with a trace code and texts of arbitrary bytes, taken from the environment variable ODD_NAME.
//
//     odd_codes MILLISECONDS [once]
//
// Traces once, or at this interval until it is killed, also with a code of an ordinary name ("ticker.tick").
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
