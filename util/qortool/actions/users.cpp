// userinfo and logon: show a user account.
#include "action_arguments.h"
#include "failure.h"
#include "message_names.h"
#include "qortool_app.h"
#include "secret_arguments.h"
#include "user_report.h"

namespace message = qor::messages::tool;

int qortool_app::func_userinfo(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "func_userinfo");
    fputmsg(stdout, message::catalog, message::user_heading, true);
    if (!check_arguments(args, "userinfo", 1))
        return 1;
    zetSmartPointer<IQORUserToken> token;
    if (!qorGetUserToken(args[0], token.Out()))
        return report_failure();
    print_user_report(token);
    return 0;
}

int qortool_app::func_logon(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "func_logon");
    zetSmartPointer<IQORUserToken> current;
    if (!qorGetCurrentUserToken(current.Out()))
        return report_failure();
    if (!current->IsSuperUser()) {
        fixed_fprintf(stderr, "You must be super-user to run this function\n");
        return 1;
    }
    current.Empty();
    if (!check_arguments(args, "logon", 2))
        return 1;
    fputmsg(stdout, message::catalog, message::logging_on, true);
    hide_argument(args[1]);
    zetSmartPointer<IQORUserToken> token;
    const bool done = qorLogonUser(args[0], args[1], token.Out());
    wipe_element(args, 1);
    if (!done)
        return report_failure();
    fputmsg(stdout, message::catalog, message::logged_on, true);
    print_user_report(token);
    return 0;
}
