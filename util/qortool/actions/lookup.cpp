// lookup: the addresses of a host.
#include "action_arguments.h"
#include "failure.h"
#include "qortool_app.h"

int qortool_app::func_lookup(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "func_lookup");
    if (!check_arguments(args, "lookup", 1))
        return 1;
    if (!m_quiet)
        fixed_fprintf(stdout, "Looking up [%s] ...\n", args[0]);
    zetSmartPointer<IQORHostAddressList> list;
    if (!qorLookupHost(args[0], list.Out()))
        return report_failure("Lookup FAILED : ");
    const uint32 count = list->GetCount();
    if (count == 0) {
        // The text has no line end because existing scripts expect it so.
        fixed_fprintf(stderr, "Lookup returned zero addresses");
        return 1;
    }
    if (!m_quiet)
        fixed_fprintf(stdout, "Lookup returned %u addresses\n", count);
    for (uint32 i = 0; i < count; ++i) {
        qorHostAddress address;
        qorString text;
        list->GetAddress(i, address);
        qorAddressToString(address, true, text);
        fixed_fprintf(stdout, "%s\n", text.Text());
    }
    return 0;
}
