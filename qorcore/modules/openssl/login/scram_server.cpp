#include "scram_server.h"

#include "scram_message.h"

qor::control::scram_server::scram_server(accounts& users, const std::array<uint8, 32>& binding)
    : m_binding(binding_attribute(crypto::bytes_of(binding))), m_users(users) {}

bool qor::control::scram_server::first(std::string_view client_first, std::string& answer) {
    if (client_first.substr(0, scram_header.size()) != scram_header)
        return false;
    client_first.remove_prefix(scram_header.size());
    std::string_view rest = client_first;
    std::string_view name;
    std::string_view nonce;
    std::string own_nonce;
    if (!take_attribute(rest, 'n', name) || !unescape_name(name, m_user) || !take_attribute(rest, 'r', nonce) ||
        !is_nonce(nonce) || !is_optional(rest) || !make_nonce(own_nonce) ||
        !m_users.look_up(m_user, m_verifier, m_is_known))
        return false;
    m_nonce = std::string(nonce) + own_nonce;
    answer =
        "r=" + m_nonce + ",s=" + crypto::to_base64(m_verifier.salt) + ",i=" + std::to_string(m_verifier.iterations);
    m_messages = std::string(client_first) + ',' + answer + ',';
    return true;
}

qor::control::scram_server::verdict qor::control::scram_server::final(std::string_view client_final,
                                                                      std::string& answer) {
    // The proof comes last and covers everything before it.
    const std::size_t end = client_final.rfind(",p=");
    if (m_nonce.empty() || end == client_final.npos)
        return verdict::malformed;
    std::string_view rest = client_final.substr(0, end);
    std::string_view last = client_final.substr(end + 1);
    std::string_view proof;
    std::string_view binding;
    std::string_view nonce;
    crypto::digest key;
    const crypto::wiped_later of_key(key);
    if (!take_attribute(rest, 'c', binding) || !take_attribute(rest, 'r', nonce) || !is_optional(rest) ||
        !take_attribute(last, 'p', proof) || !last.empty() || !crypto::from_base64(proof, key))
        return verdict::malformed;
    m_messages.append(client_final.substr(0, end));

    // Read the account again: it may have been removed or changed since the first message.
    crypto::verifier now;
    bool is_known = false;
    const bool is_as_before = m_users.look_up(m_user, now, is_known) && is_known == m_is_known && now == m_verifier;

    // Do all computations for every client, so that the response time reveals nothing. The XOR turns the proof into the
    // client's key.
    crypto::digest stored_key;
    crypto::digest signature;
    const bool computed = xor_with_signature(m_verifier.stored_key, m_messages, key) &&
                          crypto::sha256(crypto::bytes_of(key), stored_key) &&
                          crypto::hmac_sha256(crypto::bytes_of(m_verifier.server_key), m_messages, signature);
    const bool is_bound = m_binding.substr(2) == binding;
    const bool is_fresh = nonce == m_nonce;
    // Each nonce allows one attempt.
    m_nonce.clear();
    if (!computed)
        return verdict::refused;
    if (!(crypto::equal(stored_key, m_verifier.stored_key) & is_bound & is_fresh & m_is_known & is_as_before))
        return verdict::refused;
    answer = "v=" + crypto::to_base64(crypto::bytes_of(signature));
    return verdict::accepted;
}
