// Prints its arguments, sorted, and the name of an error in the user's language.
#include "qor/qor.h"

#include <set>

int main(int argc, char** argv) {
    qorStringArray args;
    args.SetFromArgVec(argc, argv);
    if (!qorInitProcess("sorted", args, 0)) {
        fputerr(stderr, true);
        return 1;
    }
    std::set<qorString> names;
    for (const qorString& each : args)
        names.insert(each);
    for (const std::string_view name : names)
        fixed_fprintf(stdout, "%.*s\n", static_cast<int>(name.size()), name.data());
    qorSetLastError(qorError_not_supported);
    fputerr(stdout, true);
    qorCleanup();
}
