// Modules that want components while they start. MODULE_WANTS is a component, and MODULE_FACTOR makes the module's own
// scanner different from others; MODULE_SLOW waits for the test.
#include "component/scanner.h"
#include "qor/glue/module.h"

namespace {

bool start(IQORModuleHelper* helper) noexcept {
    if (!helper->Register<qor::test::scanner_of<MODULE_FACTOR>>(MODULE_OFFERS))
        return false;
#ifdef MODULE_SLOW
    qor::test::counters& shared = qor::test::shared_counters();
    ++shared.starts;
    shared.starting.Open();
    shared.go_on.Wait();
#endif
    zetSmartPointer<qor::test::IQORScanner> other;
    return qorCreateComponent(MODULE_WANTS, other.Out());
}

} // namespace

QOR_MODULE(MODULE_NAME, "1", &start, MODULE_OFFERS)
