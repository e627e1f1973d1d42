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

constexpr qor::glue::module_table table = {&create_object};

} // namespace

extern "C" const qor::glue::module_table* glue_module_point(const qor::glue::binding_table* library) noexcept {
    return qor::glue::bind_module(library) ? &table : nullptr;
}
