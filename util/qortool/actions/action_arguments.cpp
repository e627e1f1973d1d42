#include "action_arguments.h"

bool check_arguments(qorStringArray& args, const char* action, uint32 count) {
    qorString name;
    qorString value;
    if (qorNextOption(args, name, value)) {
        fputmsg(stderr, "qortool", 36, action, name);
        return false;
    }
    if (args.GetCount() != count) {
        fputmsg(stderr, "qortool", 37, action);
        return false;
    }
    return true;
}
