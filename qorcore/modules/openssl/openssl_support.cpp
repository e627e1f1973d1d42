#include "openssl_support.h"

#include "qor/qor.h"

#include <openssl/err.h>

std::string qor::crypto::openssl_reason() {
    char reason[256];
    ERR_error_string_n(ERR_get_error(), reason, sizeof reason);
    ERR_clear_error();
    return reason;
}

bool qor::crypto::failed(const char* operation) noexcept {
    try {
        qorSetLastError(qorError_crypto_failed, operation, openssl_reason().c_str());
    } catch (const std::bad_alloc&) {
        qorSetLastError(qorError_out_of_memory);
    }
    return false;
}
