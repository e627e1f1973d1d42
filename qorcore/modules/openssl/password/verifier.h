// Inside the module qor-openssl: the stored form of passwords, a verifier of SCRAM-SHA-256 (RFC 5803):
//
//   SCRAM-SHA-256$<iterations>:<salt>$<StoredKey>:<ServerKey>
//
// The last three fields are in base64. A verifier can check a password, and can log its owner in without the password
// being sent.
#pragma once

#include "support/primitives.h"

#include <string>
#include <string_view>

namespace qor::crypto {

// Fewer iterations make guessing too fast. With more, a peer could keep this process busy for long.
inline constexpr uint32 fewest_iterations = 4096;
inline constexpr uint32 default_iterations = 600000;
inline constexpr uint32 most_iterations = 2000000;
inline constexpr std::size_t default_salt_size = 16;

struct verifier {
    uint32 iterations = 0;
    std::string salt; // raw bytes, at least one
    digest stored_key{};
    digest server_key{};
};

inline bool operator==(const verifier& left, const verifier& right) noexcept {
    return left.iterations == right.iterations && left.salt == right.salt &&
           (int{equal(left.stored_key, right.stored_key)} & int{equal(left.server_key, right.server_key)}) != 0;
}

// Decimal, without a sign or leading zeros, and within the bounds above.
bool parse_iterations(std::string_view text, uint32& out) noexcept;

// Accepts only the output of format_verifier. Does not set the last error.
bool parse_verifier(std::string_view text, verifier& out);

// Reads the iterations and the salt of a verifier that may be incomplete after these. Does not set the last error.
bool parse_beginning(std::string_view text, verifier& out);

std::string format_verifier(const verifier& value);

// Makes a verifier for a password, whose bytes are used unchanged. On false, the last error gives the reason.
bool make_verifier(std::string_view password, uint32 iterations, std::string_view salt, verifier& out);

// Uses the default number of iterations and a new salt.
bool make_verifier(std::string_view password, verifier& out);

// Whether the password matches, compared in constant time. On false, the last error gives the reason:
// credentials_refused for a wrong password.
bool verify_password(std::string_view password, const verifier& value);

// Derive the keys from a password that has been salted and iterated.
bool client_key_of(const digest& salted_password, digest& out) noexcept;
bool server_key_of(const digest& salted_password, digest& out) noexcept;

// Whether a text contains a control character of Unicode.
bool has_control_characters(std::string_view text) noexcept;

// Whether a text may be a password. Control characters are not allowed, because they cannot be typed everywhere. On
// false, sets the last error.
bool is_password(std::string_view text) noexcept;

} // namespace qor::crypto
