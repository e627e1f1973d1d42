// Inside the module qor-openssl: the messages of SCRAM-SHA-256-PLUS (RFC 5802, RFC 7677) with the channel binding
// tls-exporter (RFC 9266). Nothing else is supported: no other binding, no login without binding, no acting for another
// user.
#pragma once

#include "support/primitives.h"

#include <string>
#include <string_view>

namespace qor::control {

// The beginning of every client's first message: the type of binding, and no other user to act for.
inline constexpr std::string_view scram_header = "p=tls-exporter,,";

// Takes "<name>=<value>" and the comma after it off the front of a message. Returns false if the message begins
// differently or if the value contains an invalid character.
bool take_attribute(std::string_view& message, char name, std::string_view& value) noexcept;

// Whether the rest of a message consists of extensions only, which may be ignored. Attributes that SCRAM defines are
// not extensions, in particular "m", which marks a mandatory extension.
bool is_optional(std::string_view rest) noexcept;

// Printable ASCII without commas, at least one character.
bool is_nonce(std::string_view text) noexcept;

// Makes a new nonce from 18 random bytes. On false, the last error gives the reason.
bool make_nonce(std::string& out);

// Escapes a user's name for messages, and reverses that. Accepts an empty name, which is treated like an unknown one.
// unescape_name returns false for an invalid escape.
std::string escaped_name(std::string_view name);
bool unescape_name(std::string_view text, std::string& out);

// Returns the attribute of a client-final-message that binds the login to its connection.
std::string binding_attribute(std::string_view binding);

// XORs `in_out` with the client signature, which both sides derive from the messages of a login. On false, the last
// error gives the reason.
bool xor_with_signature(const crypto::digest& stored_key, std::string_view messages, crypto::digest& in_out);

} // namespace qor::control
