// pwcrypt: the form in which the framework stores a password.
#include "action_arguments.h"
#include "qortool_app.h"
#include "secret_arguments.h"

int qortool_app::func_pwcrypt(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "func_pwcrypt");
    if (!check_arguments(args, "pwcrypt", 1))
        return 1;
    hide_argument(args[0]);
    qorString hash;
    const bool done = qorCreatePasswordHash(args[0], nullptr, hash);
    wipe_element(args, 0);
    if (!done) {
        fixed_fprintf(stderr, "ERROR creating hash\n");
        return 1;
    }
    fixed_fprintf(stdout, "Hash: %s\n", hash.Text());
    return 0;
}
