// The module qor-config: texts in TOML.
#include "qor/glue/module.h"

#include "common/guarded.h"
#include "document.h"

#include <cstring>

namespace {

bool create_object(const char* interface_name, const char*, void** out) noexcept {
    if (std::strcmp(interface_name, "IQORConfigDocument") != 0) {
        qorSetLastError(qorError_not_supported);
        return false;
    }
    return qor::modules::guarded([&] {
        *out = config::make_document();
        return true;
    });
}

} // namespace

QOR_OWN_MODULE("qor-config", &create_object, nullptr)
