#include "scram_message.h"

#include <algorithm>

namespace {

constexpr std::string_view known_names = "anmrcsipve";

bool is_extension(char name) noexcept {
    return ((name >= 'A' && name <= 'Z') || (name >= 'a' && name <= 'z')) && known_names.find(name) == known_names.npos;
}

} // namespace

bool qor::control::take_attribute(std::string_view& message, char name, std::string_view& value) noexcept {
    if (message.size() < 2 || message[0] != name || message[1] != '=')
        return false;
    const std::size_t end = std::min(message.find(','), message.size());
    value = message.substr(2, end - 2);
    // A trailing comma is invalid, because no attribute follows it.
    if (end + 1 == message.size() || value.find('\0') != value.npos)
        return false;
    message.remove_prefix(std::min(end + 1, message.size()));
    return true;
}

bool qor::control::is_optional(std::string_view rest) noexcept {
    while (!rest.empty()) {
        const char name = rest.front();
        std::string_view value;
        if (!is_extension(name) || !take_attribute(rest, name, value) || value.empty())
            return false;
    }
    return true;
}

bool qor::control::is_nonce(std::string_view text) noexcept {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < '\x7f' && c != ','; });
}

bool qor::control::make_nonce(std::string& out) {
    char bytes[18];
    if (!crypto::random_bytes(bytes, sizeof bytes))
        return false;
    out = crypto::to_base64({bytes, sizeof bytes});
    return true;
}

std::string qor::control::escaped_name(std::string_view name) {
    std::string text;
    for (const char c : name) {
        if (c == ',')
            text += "=2C";
        else if (c == '=')
            text += "=3D";
        else
            text += c;
    }
    return text;
}

bool qor::control::unescape_name(std::string_view text, std::string& out) {
    out.clear();
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '=') {
            out += text[at];
            continue;
        }
        const std::string_view escape = text.substr(at, 3);
        if (escape != "=2C" && escape != "=3D")
            return false;
        out += escape == "=2C" ? ',' : '=';
        at += 2;
    }
    return true;
}

std::string qor::control::binding_attribute(std::string_view binding) {
    return "c=" + crypto::to_base64(std::string(scram_header).append(binding));
}

bool qor::control::xor_with_signature(const crypto::digest& stored_key, std::string_view messages,
                                      crypto::digest& in_out) {
    crypto::digest signature;
    const crypto::wiped_later of_signature(signature);
    if (!crypto::hmac_sha256(crypto::bytes_of(stored_key), messages, signature))
        return false;
    std::transform(in_out.begin(), in_out.end(), signature.begin(), in_out.begin(),
                   [](uint8 left, uint8 right) { return static_cast<uint8>(left ^ right); });
    return true;
}
