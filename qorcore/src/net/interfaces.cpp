// The network interfaces are listed by a module: what the system has for it is loaded when they are first wanted.
#include "error/error.h"
#include "module/module.h"

bool qor::glue::qorEnumerateNetInterfaces(IQORNetInterfaceList** out) noexcept {
    void* made = nullptr;
    if (!module::create_object("qor-network", "IQORNetInterfaceList", "", &made))
        return false;
    *out = static_cast<IQORNetInterfaceList*>(made);
    return true;
}
