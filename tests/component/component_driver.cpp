// component_driver FOLDER [COMPONENT]... prints the modules of a folder, and what each component scans in 7 lines.
#include "component/scanner.h"

#include <cstdio>

int main(int argc, char** argv) {
    zetSmartPointer<IQORModuleManager> manager;
    qorGetModuleManager(manager.Out());
    zetSmartPointer<IQORModuleList> list;
    if (argc < 2 || !manager->AddFolder(argv[1]) || !manager->GetModules(list.Out())) {
        fputerr(stdout, true);
        return 1;
    }
    for (const qorModuleInfo& each : list->Modules()) {
        if (std::strncmp(each.name, "test-", 5) != 0)
            continue; // the framework's own
        std::printf("%s %s %u %s", each.name, each.version, static_cast<unsigned>(each.state), each.reason);
        for (const char* const component : each.Components())
            std::printf(" %s", component);
        std::printf("\n");
    }
    for (int i = 2; i < argc; ++i) {
        zetSmartPointer<qor::test::IQORScanner> scanner;
        if (qorCreateComponent(argv[i], scanner.Out()))
            std::printf("%s: %u\n", argv[i], scanner->Scan(7));
        else
            fputerr(stdout, true);
    }
    qorCleanup();
}
