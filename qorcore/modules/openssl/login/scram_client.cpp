#include "scram_client.h"

#include "password/verifier.h"
#include "scram_message.h"

qor::control::scram_client::scram_client(std::string_view name, std::string_view password, const binding_data& binding)
    : m_name(escaped_name(name)), m_password(password), m_binding(binding_attribute(crypto::bytes_of(binding))) {}

qor::control::scram_client::~scram_client() {
    crypto::wipe(m_password);
    crypto::wipe(m_expected);
}

std::string qor::control::scram_client::first() {
    if (!make_nonce(m_nonce))
        return {};
    std::string text(scram_header);
    return text.append("n=").append(m_name).append(",r=").append(m_nonce);
}

bool qor::control::scram_client::final(std::string_view server_first, std::string& answer) {
    std::string_view rest = server_first;
    std::string_view nonce;
    std::string_view salt_text;
    std::string_view iterations_text;
    std::string salt;
    uint32 iterations;
    if (m_nonce.empty() || m_has_answered || !take_attribute(rest, 'r', nonce) || !is_nonce(nonce) ||
        nonce.size() <= m_nonce.size() || nonce.substr(0, m_nonce.size()) != m_nonce ||
        !take_attribute(rest, 's', salt_text) || !crypto::from_base64(salt_text, salt) || salt.empty() ||
        !take_attribute(rest, 'i', iterations_text) || !crypto::parse_iterations(iterations_text, iterations) ||
        !is_optional(rest))
        return false;
    crypto::digest salted;
    const crypto::wiped_later of_password(salted);
    m_has_answered =
        crypto::pbkdf2_sha256(m_password, salt, iterations, salted) && answer_with(salted, server_first, nonce, answer);
    crypto::wipe(m_password);
    return m_has_answered;
}

bool qor::control::scram_client::answer_with(const crypto::digest& salted_password, std::string_view server_first,
                                             std::string_view nonce, std::string& answer) {
    const std::string without_proof = m_binding + ",r=" + std::string(nonce);
    std::string messages = "n=" + m_name + ",r=" + m_nonce + ',';
    messages.append(server_first).append(",").append(without_proof);

    crypto::digest key;
    crypto::digest stored_key;
    const crypto::wiped_later of_key(key);
    const crypto::wiped_later of_stored_key(stored_key);
    if (!crypto::client_key_of(salted_password, key) || !crypto::sha256(crypto::bytes_of(key), stored_key) ||
        !xor_with_signature(stored_key, messages, key))
        return false;
    // `key` now holds the proof.
    std::string proof = crypto::to_base64(crypto::bytes_of(key));
    const crypto::wiped_later of_proof(proof);
    answer.clear();
    answer.reserve(without_proof.size() + 3 + proof.size()); // a growing string would leave copies in memory
    answer.append(without_proof).append(",p=").append(proof);
    return crypto::server_key_of(salted_password, key) &&
           crypto::hmac_sha256(crypto::bytes_of(key), messages, m_expected);
}

bool qor::control::scram_client::verify(std::string_view server_final) const {
    std::string_view text;
    crypto::digest signature;
    return m_has_answered && take_attribute(server_final, 'v', text) && crypto::from_base64(text, signature) &&
           is_optional(server_final) && crypto::equal(signature, m_expected);
}
