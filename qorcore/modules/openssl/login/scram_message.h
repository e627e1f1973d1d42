// Inside the module qor-openssl: the messages of SCRAM-SHA-256-PLUS (RFC 5802, RFC 7677) with the channel binding
// tls-exporter (RFC 9266). Nothing else is spoken: no other binding, none at all, no acting for another user.
#pragma once

#include "support/primitives.h"

#include <string>
#include <string_view>

namespace qor::control {

// What every client begins with: the kind of binding, and no other user to act for.
inline constexpr std::string_view scram_header = "p=tls-exporter,,";

// Takes "<name>=<value>" off the front of a message, and the comma behind it. False: it begins with something else, or
// the value has characters that none may have.
bool take_attribute(std::string_view& message, char name, std::string_view& value) noexcept;

// Whether what is left of a message is nothing but extensions, which one need not understand. Names that messages have
// a meaning for are none, "m" above all: it begins what has to be understood.
bool is_optional(std::string_view rest) noexcept;

// Printable ASCII without a comma, at least one.
bool is_nonce(std::string_view text) noexcept;

// A fresh one, of 18 random bytes. False: the last error says why.
bool make_nonce(std::string& out);

// A user's name as messages carry it, and back. An empty one is let through: it is as good as an unknown one. False: it
// is no such form.
std::string escaped_name(std::string_view name);
bool unescape_name(std::string_view text, std::string& out);

// The attribute of a client-final-message that binds the login to its connection.
std::string binding_attribute(std::string_view binding);

// What both sides derive from the messages of a login. False: the last error says why.
bool xor_with_signature(const crypto::digest& stored_key, std::string_view messages, crypto::digest& in_out);

} // namespace qor::control
