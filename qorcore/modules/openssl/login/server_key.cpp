#include "server_key.h"

#include "message_names.h"
#include "private_file.h"
#include "qor/qor.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <new>

namespace framework = qor::messages::framework;

namespace {

using qor::crypto::bio_pointer;
using qor::crypto::key_pointer;

constexpr std::string_view curve = "prime256v1";

bool cannot_use(const std::string& path, const std::string& reason) {
    qorSetLastError(qorError_server_key_unusable, path.c_str(), reason.c_str());
    return false;
}

std::string text_of_reason(uint32 number) {
    qorString reason;
    reason.LoadString(framework::catalog, number);
    return reason.Text();
}

// Without this callback, OpenSSL would ask for a password at the terminal.
int no_password(char*, int, int, void*) noexcept { return -1; }

bool parse_key(const std::string& path, const std::string& text, key_pointer& key) {
    const bio_pointer bytes(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    key.reset(bytes != nullptr ? PEM_read_bio_PrivateKey(bytes.get(), nullptr, no_password, nullptr) : nullptr);
    char name[64];
    std::size_t size = 0;
    if (key != nullptr && EVP_PKEY_get_group_name(key.get(), name, sizeof name, &size) == 1 &&
        std::string_view(name, size) == curve)
        return true;
    // OpenSSL has tried several formats, and the reason for the last failure is no help.
    ERR_clear_error();
    return cannot_use(path, text_of_reason(framework::bad_private_key));
}

bool make_key(const std::string& path, key_pointer& key) {
    key.reset(EVP_EC_gen(curve.data()));
    const bio_pointer bytes(BIO_new(BIO_s_secmem()));
    if (key == nullptr || bytes == nullptr ||
        PEM_write_bio_PrivateKey(bytes.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1)
        return qor::crypto::failed("EVP_EC_gen");
    char* text = nullptr;
    const long size = BIO_get_mem_data(bytes.get(), &text);
    std::string reason;
    return qor::control::write_private_file(path, {text, static_cast<std::size_t>(size)}, reason) ||
           cannot_use(path, reason);
}

} // namespace

bool qor::control::open_server_key(const std::string& accounts, crypto::key_pointer& key) {
    const std::string path = accounts + ".key";
    std::string text;
    std::string reason;
    bool is_missing = false;
    const crypto::wiped_later of_text(text);
    if (!read_private_file(path, text, reason, is_missing))
        return cannot_use(path, reason);
    if (!is_missing)
        return parse_key(path, text, key);
    // The lock prevents two processes from both making a key.
    const private_file_lock lock(path);
    if (!lock.is_held(reason) || !read_private_file(path, text, reason, is_missing))
        return cannot_use(path, reason);
    return is_missing ? make_key(path, key) : parse_key(path, text, key);
}

bool qor::control::read_server_key(const std::string& accounts, crypto::key_pointer& key) {
    const std::string path = accounts + ".key";
    std::string text;
    std::string reason;
    bool is_missing = false;
    const crypto::wiped_later of_text(text);
    if (read_private_file(path, text, reason, is_missing) && !is_missing)
        return parse_key(path, text, key);
    return cannot_use(path, is_missing ? text_of_reason(framework::no_such_file) : reason);
}

bool qor::control::secret_of_key(EVP_PKEY* key, std::string_view purpose, crypto::digest& out) {
    unsigned char* bytes = nullptr;
    const int size = i2d_PrivateKey(key, &bytes);
    if (size <= 0)
        return crypto::failed("i2d_PrivateKey");
    const bool made =
        crypto::hmac_sha256({reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size)}, purpose, out);
    OPENSSL_clear_free(bytes, static_cast<std::size_t>(size));
    return made;
}

qor::control::key_fingerprint qor::control::fingerprint_of(EVP_PKEY* key) {
    unsigned char* der = nullptr;
    const int size = i2d_PUBKEY(key, &der);
    key_fingerprint print{};
    const bool made =
        size > 0 && EVP_Digest(der, static_cast<std::size_t>(size), print.data(), nullptr, EVP_sha256(), nullptr) == 1;
    OPENSSL_free(der);
    if (!made)
        throw std::bad_alloc();
    return print;
}
