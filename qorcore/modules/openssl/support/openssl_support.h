// Inside the module qor-openssl: helpers for all users of OpenSSL.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>

#include <memory>
#include <string>

namespace qor::crypto {

struct openssl_freer {
    void operator()(EVP_MD* algorithm) const noexcept { EVP_MD_free(algorithm); }
    void operator()(EVP_MD_CTX* context) const noexcept { EVP_MD_CTX_free(context); }
    void operator()(EVP_CIPHER_CTX* context) const noexcept { EVP_CIPHER_CTX_free(context); }
    void operator()(EVP_PKEY* key) const noexcept { EVP_PKEY_free(key); }
    void operator()(BIO* bytes) const noexcept { BIO_free(bytes); }
    void operator()(X509* certificate) const noexcept { X509_free(certificate); }
    void operator()(SSL* connection) const noexcept { SSL_free(connection); }
    void operator()(SSL_CTX* context) const noexcept { SSL_CTX_free(context); }
};
using key_pointer = std::unique_ptr<EVP_PKEY, openssl_freer>;
using bio_pointer = std::unique_ptr<BIO, openssl_freer>;

// Returns OpenSSL's oldest error on this thread and clears its error queue.
std::string openssl_reason();

// Sets the last error for a failed OpenSSL operation; always returns false.
bool failed(const char* operation) noexcept;

} // namespace qor::crypto
