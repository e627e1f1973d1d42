#include "secret/encrypted_text.h"

#include "qor/qor.h"
#include "support/openssl_support.h"

#include <algorithm>
#include <charconv>
#include <memory>

namespace {

using qor::crypto::failed;
using cipher_context = std::unique_ptr<EVP_CIPHER_CTX, qor::crypto::openssl_freer>;

constexpr std::string_view scheme = "AES-256-GCM$";
constexpr std::size_t id_digits = 16;

const uint8* data_of(std::string_view bytes) noexcept { return reinterpret_cast<const uint8*>(bytes.data()); }
uint8* data_of(std::string& bytes) noexcept { return reinterpret_cast<uint8*>(bytes.data()); }

template <std::size_t SIZE>
std::string_view bytes_of(const std::array<uint8, SIZE>& value) noexcept {
    return {reinterpret_cast<const char*>(value.data()), SIZE};
}

template <std::size_t SIZE>
bool parse_bytes(std::string_view text, std::array<uint8, SIZE>& out) {
    std::string bytes;
    if (!qor::crypto::from_base64url(text, bytes) || bytes.size() != SIZE)
        return false;
    std::copy(bytes.begin(), bytes.end(), out.begin());
    return true;
}

// Takes the text before the separator, which must be there.
bool take_field(std::string_view& text, char separator, std::string_view& field) {
    const std::size_t end = text.find(separator);
    if (end == text.npos)
        return false;
    field = text.substr(0, end);
    text.remove_prefix(end + 1);
    return true;
}

// OpenSSL takes lengths as int; ours are small.
int length_of(std::string_view text) noexcept { return static_cast<int>(text.size()); }

// No call for an empty part: a null pointer would mean something else.
bool add_bound(EVP_CIPHER_CTX* context, std::string_view bound, bool encrypts) {
    int count = 0;
    return bound.empty() || EVP_CipherUpdate(context, nullptr, &count, data_of(bound), length_of(bound)) == 1 ||
           failed(encrypts ? "EVP_EncryptUpdate" : "EVP_DecryptUpdate");
}

} // namespace

bool qor::secret::seal(const key_bytes& key, const nonce_bytes& nonce, std::string_view bound, std::string_view plain,
                       std::string& cipher, tag_bytes& tag) {
    const cipher_context context(EVP_CIPHER_CTX_new());
    if (context == nullptr ||
        EVP_EncryptInit_ex2(context.get(), EVP_aes_256_gcm(), key.data(), nonce.data(), nullptr) != 1)
        return failed("EVP_EncryptInit_ex2");
    if (!add_bound(context.get(), bound, true))
        return false;
    cipher.assign(plain.size(), '\0');
    int count = 0;
    if (!plain.empty() &&
        EVP_EncryptUpdate(context.get(), data_of(cipher), &count, data_of(plain), length_of(plain)) != 1)
        return failed("EVP_EncryptUpdate");
    uint8 rest[EVP_MAX_BLOCK_LENGTH];
    if (EVP_EncryptFinal_ex(context.get(), rest, &count) != 1 ||
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, static_cast<int>(tag.size()), tag.data()) != 1)
        return failed("EVP_EncryptFinal_ex");
    return true;
}

bool qor::secret::unseal(const key_bytes& key, const nonce_bytes& nonce, std::string_view bound,
                         std::string_view cipher, const tag_bytes& tag, std::string& plain, bool& is_genuine) {
    plain.clear();
    is_genuine = false;
    const cipher_context context(EVP_CIPHER_CTX_new());
    tag_bytes expected = tag;
    if (context == nullptr ||
        EVP_DecryptInit_ex2(context.get(), EVP_aes_256_gcm(), key.data(), nonce.data(), nullptr) != 1 ||
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(expected.size()), expected.data()) !=
            1)
        return failed("EVP_DecryptInit_ex2");
    if (!add_bound(context.get(), bound, false))
        return false;
    plain.assign(cipher.size(), '\0');
    int count = 0;
    if (!cipher.empty() &&
        EVP_DecryptUpdate(context.get(), data_of(plain), &count, data_of(cipher), length_of(cipher)) != 1) {
        crypto::wipe(plain);
        return failed("EVP_DecryptUpdate");
    }
    // It fails for a wrong tag without entering a reason.
    uint8 rest[EVP_MAX_BLOCK_LENGTH];
    is_genuine = EVP_DecryptFinal_ex(context.get(), rest, &count) == 1;
    if (!is_genuine)
        crypto::wipe(plain);
    return true;
}

bool qor::secret::id_of(const key_bytes& key, std::string& id) {
    crypto::digest name;
    if (!crypto::hmac_sha256(crypto::bytes_of(key), "qor password key", name))
        return false;
    id.clear();
    constexpr char digits[] = "0123456789abcdef";
    for (std::size_t i = 0; i < id_digits / 2; ++i)
        id.append(1, digits[name[i] >> 4]).append(1, digits[name[i] & 15]);
    return true;
}

bool qor::secret::is_id(std::string_view text) noexcept {
    return text.size() == id_digits && std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
           });
}

qor::secret::form qor::secret::parse(std::string_view text, encrypted& out, uint32& number) {
    std::string_view field;
    if (!text.starts_with(scheme))
        return form::unknown;
    text.remove_prefix(scheme.size());
    if (!take_field(text, ':', field))
        return form::unknown;
    const auto [stop, failure] = std::from_chars(field.data(), field.data() + field.size(), number);
    if (failure != std::errc() || stop != field.data() + field.size() || field.front() == '0')
        return form::unknown;
    if (number > newest_form)
        return form::newer;
    std::string_view nonce;
    std::string_view cipher;
    const bool is_ours = take_field(text, '$', field) && is_id(field) && take_field(text, ':', nonce) &&
                         parse_bytes(nonce, out.nonce) && take_field(text, ':', cipher) &&
                         crypto::from_base64url(cipher, out.cipher) && out.cipher.size() <= longest_password &&
                         parse_bytes(text, out.tag);
    out.key_id = field;
    return is_ours ? form::known : form::unknown;
}

std::string qor::secret::format(const encrypted& value) {
    std::string text = bound_to(value.key_id, "");
    text.append(crypto::to_base64url(::bytes_of(value.nonce))).append(":");
    text.append(crypto::to_base64url(value.cipher)).append(":");
    return text.append(crypto::to_base64url(::bytes_of(value.tag)));
}

std::string qor::secret::bound_to(std::string_view key_id, std::string_view context) {
    std::string text(scheme);
    text.append(std::to_string(newest_form)).append(":");
    return text.append(key_id).append("$").append(context);
}
