// The module qor-openssl: what libqor does with OpenSSL.
#include "debug_control.h"
#include "debug_listener.h"
#include "digest_engine.h"
#include "qor/glue/module.h"

#include <openssl/crypto.h>

#include <string_view>

namespace {

// A maker of one interface gives what it made to a pointer of that type; the table speaks of any.
template <class INTERFACE, class MAKER>
bool make(MAKER maker, void** out) noexcept {
    INTERFACE* made = nullptr;
    if (!maker(&made))
        return false;
    *out = made;
    return true;
}

bool create_object(const char* interface_name, const char* kind, void** out) noexcept {
    const std::string_view wanted = interface_name;
    if (wanted == "IQORDigestEngine")
        return make<IQORDigestEngine>([kind](auto made) { return create_digest_engine(kind, made); }, out);
    if (wanted == "IQORDebugControl")
        return make<IQORDebugControl>([](auto made) { return create_debug_control("", made); }, out);
    if (wanted == "IQORDebugListener")
        return make<IQORDebugListener>(create_debug_listener, out);
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
