#include "action_arguments.h"

#include "message_names.h"

namespace message = qor::messages::tool;

bool check_arguments(qorStringArray& args, const char* action, uint32 count) {
    qorString name;
    qorString value;
    if (qorNextOption(args, name, value)) {
        fputmsg(stderr, message::catalog, message::unknown_action_option, action, name);
        return false;
    }
    if (args.GetCount() != count) {
        fputmsg(stderr, message::catalog, message::wrong_argument_count, action);
        return false;
    }
    return true;
}
