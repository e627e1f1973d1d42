// A module lists the network interfaces, so that the system libraries it needs are loaded only on first use.
#include "error/error.h"
#include "module/module.h"

bool qor::glue::qorEnumerateNetInterfaces(IQORNetInterfaceList** out) noexcept {
    void* made = nullptr;
    if (!module::create_object("qor-network", "IQORNetInterfaceList", "", &made))
        return false;
    *out = static_cast<IQORNetInterfaceList*>(made);
    return true;
}
