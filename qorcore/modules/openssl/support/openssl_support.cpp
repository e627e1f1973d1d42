#include "support/openssl_support.h"

#include "common/guarded.h"

#include <openssl/err.h>

std::string qor::crypto::openssl_reason() {
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (const char* const text = ERR_reason_error_string(code))
        return text;
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    return text;
}

bool qor::crypto::failed(const char* operation) noexcept {
    return modules::guarded([&] {
        qorSetLastError(qorError_crypto_failed, operation, openssl_reason().c_str());
        return false;
    });
}
