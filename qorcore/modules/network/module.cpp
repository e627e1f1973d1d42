// The module qor-network: the parts of libqor that need network libraries.
#include "qor/glue/module.h"

#include "common/guarded.h"
#include "interface_list.h"

#include <cstring>

namespace {

bool create_object(const char* interface_name, const char*, void** out) noexcept {
    if (std::strcmp(interface_name, "IQORNetInterfaceList") != 0) {
        qorSetLastError(qorError_not_supported);
        return false;
    }
    return qor::modules::guarded([&] {
        std::vector<network::interface_facts> interfaces;
        if (!network::read_interfaces(interfaces))
            return false;
        *out = network::make_list(std::move(interfaces));
        return true;
    });
}

} // namespace

QOR_OWN_MODULE("qor-network", &create_object, nullptr)
