// Inside the module qor-openssl: what all users of OpenSSL share.
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
    void operator()(EVP_PKEY* key) const noexcept { EVP_PKEY_free(key); }
    void operator()(BIO* bytes) const noexcept { BIO_free(bytes); }
    void operator()(X509* certificate) const noexcept { X509_free(certificate); }
    void operator()(SSL* connection) const noexcept { SSL_free(connection); }
    void operator()(SSL_CTX* context) const noexcept { SSL_CTX_free(context); }
};
using key_pointer = std::unique_ptr<EVP_PKEY, openssl_freer>;
using bio_pointer = std::unique_ptr<BIO, openssl_freer>;

// The oldest of OpenSSL's reasons for a failure on this thread, which are forgotten.
std::string openssl_reason();

// Makes the failure of an operation of OpenSSL the last error; always false.
bool failed(const char* operation) noexcept;

} // namespace qor::crypto
