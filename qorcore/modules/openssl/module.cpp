// The module qor-openssl: what libqor does with OpenSSL.
#include "digest_engine.h"
#include "qor/glue/module.h"

#include <cstring>

namespace {

bool create_object(const char* interface_name, const char* kind, void** out) noexcept {
    if (std::strcmp(interface_name, "IQORDigestEngine") != 0) {
        qorSetLastError(qorError_not_supported);
        return false;
    }
    IQORDigestEngine* engine = nullptr;
    if (!create_digest_engine(kind, &engine))
        return false;
    *out = engine;
    return true;
}

constexpr qor::glue::module_table table = {&create_object};

} // namespace

extern "C" const qor::glue::module_table* glue_module_point(const qor::glue::binding_table* library) noexcept {
    qor::glue::bind_module(library);
    return &table;
}
