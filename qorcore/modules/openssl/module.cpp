// The module qor-openssl: what libqor does with OpenSSL.
#include "debug_control.h"
#include "debug_listener.h"
#include "digest_engine.h"
#include "qor/glue/module.h"

#include <openssl/crypto.h>

#include <cstring>

namespace {

// Hands what a maker of one interface made out as what the table speaks of.
template <class INTERFACE>
bool hand_out(bool made, INTERFACE* object, void** out) noexcept {
    if (made)
        *out = object;
    return made;
}

bool create_object(const char* interface_name, const char* kind, void** out) noexcept {
    if (std::strcmp(interface_name, "IQORDigestEngine") == 0) {
        IQORDigestEngine* engine = nullptr;
        return hand_out(create_digest_engine(kind, &engine), engine, out);
    }
    if (std::strcmp(interface_name, "IQORDebugControl") == 0) {
        IQORDebugControl* control = nullptr;
        return hand_out(create_debug_control("", &control), control, out);
    }
    if (std::strcmp(interface_name, "IQORDebugListener") == 0) {
        IQORDebugListener* listener = nullptr;
        return hand_out(create_debug_listener(&listener), listener, out);
    }
    qorSetLastError(qorError_not_supported);
    return false;
}

constexpr qor::glue::module_table table = {&create_object};

} // namespace

extern "C" const qor::glue::module_table* glue_module_point(const qor::glue::binding_table* library) noexcept {
    qor::glue::bind_module(library);
    // A process may end while a thread of ours still uses OpenSSL, so nothing of it is taken down.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    return &table;
}
