// What a program can learn of its host: the user, memory and processors, and the network interfaces.
#include "qor/qor.h"

int main() {
    qorString text;
    if (!qorGetCurrentUserName(text)) {
        fputerr(stderr, true);
        return 1;
    }
    fixed_fprintf(stdout, "user: %s%s\n", text.Text(), qorIsSuperUser() ? ", a super-user" : "");

    zetSmartPointer<IQORSystemInfo> host;
    create_IQORSystemInfo(host.Out());
    fixed_fprintf(stdout, "processors: %u\n", host->GetLogicalCPUCount());
    fixed_fprintf(stdout, "page size: %u\n", host->GetPageSize());

    zetSmartPointer<IQORNetInterfaceList> interfaces;
    if (!qorEnumerateNetInterfaces(interfaces.Out())) {
        fputerr(stderr, true);
        return 1;
    }
    for (uint32 i = 0; i < interfaces->GetCount(); ++i) {
        zetSmartPointer<IQORNetInterface> one;
        if (!interfaces->GetInterface(i, one.Out()))
            continue;
        one->GetName(text);
        fixed_fprintf(stdout, "interface %u: %s\n", one->GetIndex(), text.Text());
    }
}
