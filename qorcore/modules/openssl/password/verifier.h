// Inside the module qor-openssl: the form in which passwords are stored, a verifier of SCRAM-SHA-256 (RFC 5803):
//
//   SCRAM-SHA-256$<iterations>:<salt>$<StoredKey>:<ServerKey>
//
// with the last three in base64. It serves to check a password, and to log its owner in without sending it.
#pragma once

#include "support/primitives.h"

#include <string>
#include <string_view>

namespace qor::crypto {

// Fewer are guessed too fast; with more, a peer could keep this process busy for long.
inline constexpr uint32 fewest_iterations = 4096;
inline constexpr uint32 default_iterations = 600000;
inline constexpr uint32 most_iterations = 2000000;
inline constexpr std::size_t default_salt_size = 16;

struct verifier {
    uint32 iterations = 0;
    std::string salt; // bytes, at least one
    digest stored_key{};
    digest server_key{};
};

inline bool operator==(const verifier& left, const verifier& right) noexcept {
    return left.iterations == right.iterations && left.salt == right.salt &&
           (int{equal(left.stored_key, right.stored_key)} & int{equal(left.server_key, right.server_key)}) != 0;
}

// Decimal, without a sign or leading zeros, and within the bounds above.
bool parse_iterations(std::string_view text, uint32& out) noexcept;

// Only what format_verifier writes. False: the last error stays as it is.
bool parse_verifier(std::string_view text, verifier& out);

// The iterations and the salt of a verifier of which at least the part with these is there.
bool parse_beginning(std::string_view text, verifier& out);

std::string format_verifier(const verifier& value);

// For a password, taken as the bytes that it is. False: the last error says why.
bool make_verifier(std::string_view password, uint32 iterations, std::string_view salt, verifier& out);

// With the usual number of iterations and a fresh salt.
bool make_verifier(std::string_view password, verifier& out);

// Whether it is the password, compared in constant time. False: the last error says why, credentials_refused where it
// is another password.
bool verify_password(std::string_view password, const verifier& value);

// The keys of a password that has been salted and iterated.
bool client_key_of(const digest& salted_password, digest& out) noexcept;
bool server_key_of(const digest& salted_password, digest& out) noexcept;

// Whether a text has a control character of Unicode.
bool has_control_characters(std::string_view text) noexcept;

// Whether it may be a password: control characters could not be typed everywhere. False: the last error says so.
bool is_password(std::string_view text) noexcept;

} // namespace qor::crypto
