#include "support/primitives.h"

#include "support/openssl_support.h"

#include <openssl/crypto.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>

namespace {

constexpr std::string_view digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

const uint8* data_of(std::string_view bytes) noexcept { return reinterpret_cast<const uint8*>(bytes.data()); }

// Returns six bits; 64 if the character is not a base64 digit.
unsigned value_of(char digit) noexcept { return static_cast<unsigned>(std::min(digits.find(digit), digits.size())); }

} // namespace

bool qor::crypto::random_bytes(void* out, std::size_t size) noexcept {
    return RAND_bytes(static_cast<uint8*>(out), static_cast<int>(size)) == 1 || failed("RAND_bytes");
}

bool qor::crypto::sha256(std::string_view message, digest& out) noexcept {
    return EVP_Digest(message.data(), message.size(), out.data(), nullptr, EVP_sha256(), nullptr) == 1 ||
           failed("EVP_Digest");
}

bool qor::crypto::hmac_sha256(std::string_view key, std::string_view message, digest& out) noexcept {
    // OpenSSL would read a null key as "the key of the previous call".
    const char* const begin = key.empty() ? "" : key.data();
    return HMAC(EVP_sha256(), begin, static_cast<int>(key.size()), data_of(message), message.size(), out.data(),
                nullptr) != nullptr ||
           failed("HMAC");
}

bool qor::crypto::pbkdf2_sha256(std::string_view password, std::string_view salt, uint32 iterations,
                                digest& out) noexcept {
    const char* const begin = password.empty() ? "" : password.data();
    return PKCS5_PBKDF2_HMAC(begin, static_cast<int>(password.size()), data_of(salt), static_cast<int>(salt.size()),
                             static_cast<int>(iterations), EVP_sha256(), static_cast<int>(out.size()),
                             out.data()) == 1 ||
           failed("PKCS5_PBKDF2_HMAC");
}

bool qor::crypto::equal(const digest& left, const digest& right) noexcept {
    return CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

void qor::crypto::wipe(void* bytes, std::size_t size) noexcept { OPENSSL_cleanse(bytes, size); }

void qor::crypto::wipe(digest& secret) noexcept { wipe(secret.data(), secret.size()); }

void qor::crypto::wipe(std::string& secret) noexcept {
    // The whole capacity of the string may contain earlier content.
    secret.resize(secret.capacity());
    wipe(secret.data(), secret.size());
    secret.clear();
}

std::string_view qor::crypto::bytes_of(const digest& value) noexcept {
    return {reinterpret_cast<const char*>(value.data()), value.size()};
}

bool qor::crypto::is_base64_digit(char c) noexcept { return value_of(c) != 64; }

std::string qor::crypto::to_base64(std::string_view bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::string_view three = bytes.substr(at, 3);
        unsigned bits = 0;
        for (std::size_t i = 0; i < 3; ++i)
            bits = bits << 8 | (i < three.size() ? static_cast<uint8>(three[i]) : 0u);
        for (std::size_t i = 0; i < 4; ++i)
            text += i <= three.size() ? digits[bits >> (18 - 6 * i) & 63] : '=';
    }
    return text;
}

bool qor::crypto::from_base64(std::string_view text, std::string& out) {
    out.clear();
    if (text.size() % 4 != 0)
        return false;
    out.reserve(text.size() / 4 * 3); // a string that grows would leave copies of a secret behind
    std::size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=')
        ++padding;
    unsigned bits = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool padded = i >= text.size() - padding;
        const unsigned value = padded ? 0 : value_of(text[i]);
        if (value == 64)
            return false;
        bits = bits << 6 | value;
        if (i % 4 == 3)
            for (const int shift : {16, 8, 0})
                out += static_cast<char>(bits >> shift & 255);
    }
    // The unused bits must be zero, because otherwise a value would have several encodings.
    const auto unused = out.end() - static_cast<std::ptrdiff_t>(padding);
    const bool canonical = std::all_of(unused, out.end(), [](char c) { return c == 0; });
    out.erase(unused, out.end());
    return canonical;
}

bool qor::crypto::from_base64(std::string_view text, digest& out) {
    std::string bytes;
    if (!from_base64(text, bytes) || bytes.size() != out.size())
        return false;
    std::copy(bytes.begin(), bytes.end(), out.begin());
    return true;
}

std::string qor::crypto::to_base64url(std::string_view bytes) {
    std::string text = to_base64(bytes);
    text.erase(std::min(text.find('='), text.size()));
    std::replace(text.begin(), text.end(), '+', '-');
    std::replace(text.begin(), text.end(), '/', '_');
    return text;
}

bool qor::crypto::from_base64url(std::string_view text, std::string& out) {
    out.clear();
    if (text.find_first_of("+/=") != text.npos)
        return false;
    std::string padded;
    const wiped_later of_padded(padded);
    padded.reserve(text.size() + 3);
    padded.append(text).append((4 - text.size() % 4) % 4, '=');
    std::replace(padded.begin(), padded.end(), '-', '+');
    std::replace(padded.begin(), padded.end(), '_', '/');
    return from_base64(padded, out);
}
