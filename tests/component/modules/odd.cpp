// Modules that keep their descriptions badly. KIND says in what way.
#include "component/scanner.h"
#include "qor/glue/module.h"

namespace {

constexpr int registers_others = 1, registers_less = 2, fails = 3, fails_silently = 4;

bool start(IQORModuleHelper* helper) noexcept {
    if (KIND == registers_others)
        return helper->Register<qor::test::scanner_of<3>>("test.odd.other");
    if (KIND == registers_less)
        return true;
    if (qor::test::shared_counters().fails) {
        if (KIND == fails)
            qorSetLastError(qorError_cannot_open_file, "the scanner", "it is switched off");
        return false;
    }
    return helper->Register<qor::test::scanner_of<3>>(OFFERS);
}

} // namespace

QOR_MODULE(NAME, "1", &start, OFFERS)
