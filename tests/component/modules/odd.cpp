// Modules that keep their descriptions badly. MODULE_KIND says in what way.
#include "component/scanner.h"
#include "qor/glue/module.h"

namespace {

constexpr int registers_others = 1, registers_less = 2, fails = 3, fails_silently = 4;

bool start(IQORModuleHelper* helper) noexcept {
    if (MODULE_KIND == registers_others)
        return helper->Register<qor::test::scanner_of<3>>("test.odd.other");
    if (MODULE_KIND == registers_less)
        return true;
    if (qor::test::shared_counters().fails) {
        if (MODULE_KIND == fails)
            qorSetLastError(qorError_cannot_open_file, "the scanner", "it is switched off");
        return false;
    }
    return helper->Register<qor::test::scanner_of<3>>(MODULE_OFFERS);
}

} // namespace

QOR_MODULE(MODULE_NAME, "1", &start, MODULE_OFFERS)
