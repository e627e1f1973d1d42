// Inside the module qor-openssl: basic operations for passwords and logins. An operation that fails returns false and
// has set the last error unless its comment says otherwise. Thread-safe.
#pragma once

#include "qor/system/Types.h"

#include <array>
#include <string>
#include <string_view>

namespace qor::crypto {

using digest = std::array<uint8, 32>; // for SHA-256

bool random_bytes(void* out, std::size_t size) noexcept;
bool sha256(std::string_view message, digest& out) noexcept;
bool hmac_sha256(std::string_view key, std::string_view message, digest& out) noexcept;
bool pbkdf2_sha256(std::string_view password, std::string_view salt, uint32 iterations, digest& out) noexcept;

// Compares in constant time.
bool equal(const digest& left, const digest& right) noexcept;

// Overwrites secrets in memory; compilers cannot remove the writes.
void wipe(void* bytes, std::size_t size) noexcept;
void wipe(digest& secret) noexcept;
void wipe(std::string& secret) noexcept; // and empties it

// Wipes a variable at the end of its block.
template <class SECRET>
class wiped_later {
public:
    explicit wiped_later(SECRET& secret) noexcept : m_secret(secret) {}
    wiped_later(const wiped_later&) = delete;
    wiped_later& operator=(const wiped_later&) = delete;
    ~wiped_later() { wipe(m_secret); }

private:
    SECRET& m_secret;
};

std::string_view bytes_of(const digest& value) noexcept;

// Base64 with padding, as in RFC 4648.
bool is_base64_digit(char c) noexcept;
std::string to_base64(std::string_view bytes);

// Accepts only the output of to_base64: no line ends, no missing padding, no bits after the last byte. Does not set the
// last error.
bool from_base64(std::string_view text, std::string& out);
bool from_base64(std::string_view text, digest& out);

// The same for base64url without padding.
std::string to_base64url(std::string_view bytes);
bool from_base64url(std::string_view text, std::string& out);

} // namespace qor::crypto
