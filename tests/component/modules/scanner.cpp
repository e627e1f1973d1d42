// A module with all that one can have.
#include "component/scanner.h"
#include "qor/glue/module.h"

#include <cstdio>
#include <stdexcept>

namespace {

using qor::test::scanner_of;
using qor::test::shared_counters;

// A trace of constructors that run when the loader has the module.
struct early {
    early() {
        if (std::FILE* const file = std::fopen("ran.test-scanner", "w"))
            std::fclose(file);
    }
} s_early;

class impossible final : public qor::test::scanner {
public:
    impossible() : scanner(fail()) {}

private:
    [[noreturn]] static uint32 fail() { throw std::runtime_error("the lamp is missing"); }
};

constexpr qorCatalogMessage messages[] = {{1, "{1} lines"}, {7, "No paper."}};

bool start(IQORModuleHelper* helper) noexcept {
    ++shared_counters().starts;
    return helper->AddCatalog("test-scanner", messages) && helper->Register<scanner_of<1>>("test.scanner.flatbed") &&
           helper->Register<scanner_of<2>>("test.scanner.sheet") && helper->Register<impossible>("test.scanner.broken");
}

} // namespace

QOR_MODULE("test-scanner", "1.2.10", &start, "test.scanner.flatbed", "test.scanner.sheet", "test.scanner.broken")
