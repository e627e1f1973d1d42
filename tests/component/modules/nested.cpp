// Modules that want components while they start. WANTS is a component, and FACTOR makes the module's own scanner
// different from others; SLOW waits for the test.
#include "component/scanner.h"
#include "qor/glue/module.h"

namespace {

bool start(IQORModuleHelper* helper) noexcept {
    if (!helper->Register<qor::test::scanner_of<FACTOR>>(OFFERS))
        return false;
#ifdef SLOW
    qor::test::counters& shared = qor::test::shared_counters();
    ++shared.starts;
    shared.starting.Open();
    shared.go_on.Wait();
#endif
    zetSmartPointer<qor::test::IQORScanner> other;
    return qorCreateComponent(WANTS, other.Out());
}

} // namespace

QOR_MODULE(NAME, "1", &start, OFFERS)
