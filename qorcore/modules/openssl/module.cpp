// The module qor-openssl: the parts of libqor that use OpenSSL.
#include "qor/glue/module.h"
#include "channel/control_client.h"
#include "channel/debug_listener.h"
#include "common/hand_out.h"
#include "digest/digest_engine.h"
#include "login/debug_users.h"
#include "password/passwords.h"
#include "secret/password_keys.h"

#include <openssl/crypto.h>

#include <string_view>

namespace {

using qor::modules::hand_out;

bool create_object(const char* interface_name, const char* kind, void** out) noexcept {
    const std::string_view wanted = interface_name;
    if (wanted == "IQORDigestEngine")
        return hand_out<IQORDigestEngine>([kind](auto made) { return create_digest_engine(kind, made); }, out);
    if (wanted == "IQORDebugControl")
        return hand_out<IQORDebugControl>([](auto made) { return create_debug_control("", made); }, out);
    if (wanted == "IQORDebugListener")
        return hand_out<IQORDebugListener>(create_debug_listener, out);
    if (wanted == "IQORPasswords")
        return hand_out<IQORPasswords>(create_passwords, out);
    if (wanted == "IQORPasswordKeys")
        return hand_out<IQORPasswordKeys>(create_password_keys, out);
    if (wanted == "IQORDebugUsers")
        return hand_out<IQORDebugUsers>(create_debug_users, out);
    qorSetLastError(qorError_not_supported);
    return false;
}

bool start(IQORModuleHelper*) noexcept {
    // Do not clean up OpenSSL at exit: a thread of ours may still use it while the process ends. If the default context
    // could not be allocated, most OpenSSL functions would access invalid memory.
    if (OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1 && OSSL_LIB_CTX_get0_global_default() != nullptr)
        return true;
    qorSetLastError(qorError_out_of_memory);
    return false;
}

} // namespace

QOR_OWN_MODULE("qor-openssl", &create_object, &start)
