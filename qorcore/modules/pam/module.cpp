// The module qor-pam: the parts of libqor that use PAM.
#include "qor/glue/module.h"
#include "authenticator.h"
#include "common/hand_out.h"

#include <cstring>

namespace {

bool create_object(const char* interface_name, const char* kind, void** out) noexcept {
    if (std::strcmp(interface_name, "IQORAuthenticator") != 0 || std::strcmp(kind, "pam") != 0) {
        qorSetLastError(qorError_not_supported);
        return false;
    }
    return qor::modules::hand_out<IQORAuthenticator>(create_authenticator, out);
}

} // namespace

QOR_OWN_MODULE("qor-pam", &create_object, nullptr)
