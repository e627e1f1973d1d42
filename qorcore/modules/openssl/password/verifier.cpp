#include "password/verifier.h"

#include "qor/qor.h"

#include <charconv>

namespace {

using qor::crypto::digest;

constexpr std::string_view scheme = "SCRAM-SHA-256$";

// Takes the text before the separator, or all of it if there is no separator. `text` keeps the part after it.
std::string_view take_field(std::string_view& text, char separator) {
    const std::size_t end = std::min(text.find(separator), text.size());
    const std::string_view field = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return field;
}

bool take_iterations_and_salt(std::string_view& text, qor::crypto::verifier& out) {
    if (text.substr(0, scheme.size()) != scheme)
        return false;
    text.remove_prefix(scheme.size());
    return qor::crypto::parse_iterations(take_field(text, ':'), out.iterations) &&
           qor::crypto::from_base64(take_field(text, '$'), out.salt) && !out.salt.empty();
}

} // namespace

bool qor::crypto::parse_iterations(std::string_view text, uint32& out) noexcept {
    const char* const end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, out);
    return failure == std::errc() && stop == end && text.front() != '0' && out >= fewest_iterations &&
           out <= most_iterations;
}

bool qor::crypto::parse_verifier(std::string_view text, verifier& out) {
    return take_iterations_and_salt(text, out) && from_base64(take_field(text, ':'), out.stored_key) &&
           from_base64(text, out.server_key);
}

bool qor::crypto::parse_beginning(std::string_view text, verifier& out) {
    if (!take_iterations_and_salt(text, out))
        return false;
    // The rest may be incomplete, but must be the beginning of two keys with a colon between them.
    const std::size_t key_size = to_base64(bytes_of(out.stored_key)).size();
    if (text.size() > 2 * key_size + 1)
        return false;
    for (std::size_t i = 0; i < text.size(); ++i)
        if (i == key_size ? text[i] != ':' : !is_base64_digit(text[i]) && text[i] != '=')
            return false;
    return true;
}

std::string qor::crypto::format_verifier(const verifier& value) {
    std::string text(scheme);
    text += std::to_string(value.iterations) + ':' + to_base64(value.salt) + '$' +
            to_base64(bytes_of(value.stored_key)) + ':' + to_base64(bytes_of(value.server_key));
    return text;
}

bool qor::crypto::client_key_of(const digest& salted_password, digest& out) noexcept {
    return hmac_sha256(bytes_of(salted_password), "Client Key", out);
}

bool qor::crypto::server_key_of(const digest& salted_password, digest& out) noexcept {
    return hmac_sha256(bytes_of(salted_password), "Server Key", out);
}

bool qor::crypto::make_verifier(std::string_view password, uint32 iterations, std::string_view salt, verifier& out) {
    out.iterations = iterations;
    out.salt = salt;
    digest salted;
    digest client_key;
    const wiped_later of_password(salted);
    const wiped_later of_key(client_key);
    return pbkdf2_sha256(password, salt, iterations, salted) && client_key_of(salted, client_key) &&
           sha256(bytes_of(client_key), out.stored_key) && server_key_of(salted, out.server_key);
}

bool qor::crypto::make_verifier(std::string_view password, verifier& out) {
    char salt[default_salt_size];
    return random_bytes(salt, sizeof salt) && make_verifier(password, default_iterations, {salt, sizeof salt}, out);
}

bool qor::crypto::verify_password(std::string_view password, const verifier& value) {
    verifier made;
    if (!make_verifier(password, value.iterations, value.salt, made))
        return false;
    // Compares both keys, so that a verifier with mismatched halves is useless to everybody.
    if ((int{equal(made.stored_key, value.stored_key)} & int{equal(made.server_key, value.server_key)}) != 0)
        return true;
    qorSetLastError(qorError_credentials_refused);
    return false;
}

bool qor::crypto::has_control_characters(std::string_view text) noexcept {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const uint8 byte = static_cast<uint8>(text[i]);
        // U+0080 to U+009F take two bytes in UTF-8; their first byte is shared only with U+00A0 to U+00BF.
        const bool second = byte == 0xc2 && i + 1 < text.size() && static_cast<uint8>(text[i + 1]) >= 0x80 &&
                            static_cast<uint8>(text[i + 1]) < 0xa0;
        if (byte < 0x20 || byte == 0x7f || second)
            return true;
    }
    return false;
}

bool qor::crypto::is_password(std::string_view text) noexcept {
    if (!has_control_characters(text))
        return true;
    qorSetLastError(qorError_bad_password);
    return false;
}
