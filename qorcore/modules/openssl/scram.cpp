#include "scram.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>
#include <charconv>
#include <new>

namespace {

using qor::control::scram_digest;

constexpr std::string_view binding_header = "p=tls-exporter,,";

std::string_view view(const auto& bytes) { return {reinterpret_cast<const char*>(bytes.data()), bytes.size()}; }

const unsigned char* bytes_of(std::string_view text) { return reinterpret_cast<const unsigned char*>(text.data()); }

std::string base64(std::string_view bytes) {
    std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int size =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), bytes_of(bytes), static_cast<int>(bytes.size()));
    out.resize(static_cast<std::size_t>(size));
    return out;
}

// Only the one right way to write them.
bool from_base64(std::string_view text, std::string& out) {
    if (text.empty() || text.size() % 4 != 0)
        return false;
    out.assign(text.size(), '\0');
    const int size =
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()), bytes_of(text), static_cast<int>(text.size()));
    if (size < 0)
        return false;
    const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with("=") ? 1 : 0;
    out.resize(static_cast<std::size_t>(size) - padding);
    return base64(out) == text;
}

bool read_digest(std::string_view text, scram_digest& out) {
    std::string bytes;
    if (!from_base64(text, bytes) || bytes.size() != out.size())
        return false;
    std::copy(bytes.begin(), bytes.end(), out.begin());
    return true;
}

bool read_iterations(std::string_view text, uint32& out) {
    const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), out);
    return failed == std::errc() && end == text.data() + text.size() && out >= qor::control::least_iterations &&
           out <= qor::control::most_iterations;
}

scram_digest hmac(std::string_view key, std::string_view message) {
    scram_digest out;
    unsigned size = 0;
    if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), bytes_of(message), message.size(), out.data(), &size) ==
        nullptr)
        throw std::bad_alloc();
    return out;
}

scram_digest hash(std::string_view message) {
    scram_digest out;
    if (EVP_Digest(message.data(), message.size(), out.data(), nullptr, EVP_sha256(), nullptr) != 1)
        throw std::bad_alloc();
    return out;
}

scram_digest exclusive_or(scram_digest left, const scram_digest& right) {
    for (std::size_t i = 0; i < left.size(); ++i)
        left[i] ^= right[i];
    return left;
}

std::string fresh_nonce() {
    std::array<uint8, 24> bytes;
    if (RAND_bytes(bytes.data(), bytes.size()) != 1)
        throw std::bad_alloc();
    return base64(view(bytes));
}

// Takes "<name>=<value>" and its comma off the front. False: something else stands there.
bool take(std::string_view& message, char name, std::string_view& value) {
    if (message.size() < 2 || message[0] != name || message[1] != '=')
        return false;
    const std::size_t end = std::min(message.find(','), message.size());
    value = message.substr(2, end - 2);
    message.remove_prefix(std::min(end + 1, message.size()));
    return true;
}

bool is_nonce(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c > 0x20 && c < 0x7f; });
}

std::string escaped(std::string_view name) {
    std::string out;
    for (const char c : name)
        if (c == '=')
            out += "=3D";
        else if (c == ',')
            out += "=2C";
        else
            out += c;
    return out;
}

bool unescape(std::string_view text, std::string& out) {
    out.clear();
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '=') {
            out += text[i];
            continue;
        }
        const std::string_view code = text.substr(i + 1, 2);
        if (code != "2C" && code != "3D")
            return false;
        out += code == "2C" ? ',' : '=';
        i += 2;
    }
    return !out.empty();
}

} // namespace

bool qor::control::scram_verifier::read(std::string_view text) {
    constexpr std::string_view scheme = "SCRAM-SHA-256$";
    if (!text.starts_with(scheme))
        return false;
    text.remove_prefix(scheme.size());
    const std::size_t dollar = text.find('$');
    if (dollar == text.npos)
        return false;
    const std::string_view cost = text.substr(0, dollar);
    const std::string_view keys = text.substr(dollar + 1);
    const std::size_t first = cost.find(':');
    const std::size_t second = keys.find(':');
    return first != cost.npos && second != keys.npos && read_iterations(cost.substr(0, first), iterations) &&
           from_base64(cost.substr(first + 1), salt) && read_digest(keys.substr(0, second), stored_key) &&
           read_digest(keys.substr(second + 1), server_key);
}

bool qor::control::scram_server::first(std::string_view message, std::string& answer) {
    if (!message.starts_with(binding_header))
        return false;
    const std::string_view bare = message.substr(binding_header.size());
    std::string_view rest = bare;
    std::string_view name;
    std::string_view nonce;
    if (!take(rest, 'n', name) || !take(rest, 'r', nonce) || !unescape(name, m_user) || !is_nonce(nonce))
        return false;
    m_known = m_users.find(m_user, m_verifier);
    m_nonce = std::string(nonce) + fresh_nonce();
    answer = "r=" + m_nonce + ",s=" + base64(m_verifier.salt) + ",i=" + std::to_string(m_verifier.iterations);
    m_so_far = std::string(bare) + ',' + answer + ',';
    return true;
}

qor::control::scram_server::verdict qor::control::scram_server::final(std::string_view message, std::string& answer) {
    std::string_view rest = message;
    std::string_view binding;
    std::string_view nonce;
    scram_digest proof;
    const std::size_t last = message.rfind(",p=");
    if (last == message.npos || !take(rest, 'c', binding) || !take(rest, 'r', nonce) ||
        !read_digest(message.substr(last + 3), proof))
        return verdict::malformed;
    const std::string signed_text = m_so_far + std::string(message.substr(0, last));
    const scram_digest client_key = exclusive_or(proof, hmac(view(m_verifier.stored_key), signed_text));
    const scram_digest stored_key = hash(view(client_key));
    // All is compared, whatever is wrong.
    const std::string bound = base64(std::string(binding_header) + std::string(view(m_binding)));
    const bool same_binding = binding == bound;
    const bool same_nonce = nonce == m_nonce;
    const bool same_key = CRYPTO_memcmp(stored_key.data(), m_verifier.stored_key.data(), stored_key.size()) == 0;
    answer = "v=" + base64(view(hmac(view(m_verifier.server_key), signed_text)));
    return m_known && same_binding && same_nonce && same_key ? verdict::accepted : verdict::refused;
}

qor::control::scram_client::scram_client(std::string user, std::string password, const std::array<uint8, 32>& binding)
    : m_user(std::move(user)), m_password(std::move(password)), m_binding(binding), m_nonce(fresh_nonce()) {}

qor::control::scram_client::~scram_client() { OPENSSL_cleanse(m_password.data(), m_password.size()); }

std::string qor::control::scram_client::first() {
    m_bare = "n=" + escaped(m_user) + ",r=" + m_nonce;
    return std::string(binding_header) + m_bare;
}

bool qor::control::scram_client::final(std::string_view message, std::string& answer) {
    std::string_view rest = message;
    std::string_view nonce;
    std::string_view salt_text;
    std::string_view count;
    std::string salt;
    uint32 iterations = 0;
    if (!take(rest, 'r', nonce) || !take(rest, 's', salt_text) || !take(rest, 'i', count) || !is_nonce(nonce) ||
        !nonce.starts_with(m_nonce) || nonce.size() == m_nonce.size() || !from_base64(salt_text, salt) ||
        !read_iterations(count, iterations))
        return false;
    scram_digest salted;
    if (PKCS5_PBKDF2_HMAC(m_password.data(), static_cast<int>(m_password.size()), bytes_of(salt),
                          static_cast<int>(salt.size()), static_cast<int>(iterations), EVP_sha256(), salted.size(),
                          salted.data()) != 1)
        throw std::bad_alloc();
    const scram_digest client_key = hmac(view(salted), "Client Key");
    const scram_digest server_key = hmac(view(salted), "Server Key");
    const std::string without_proof =
        "c=" + base64(std::string(binding_header) + std::string(view(m_binding))) + ",r=" + std::string(nonce);
    const std::string signed_text = m_bare + ',' + std::string(message) + ',' + without_proof;
    const scram_digest proof = exclusive_or(client_key, hmac(view(hash(view(client_key))), signed_text));
    m_expected = hmac(view(server_key), signed_text);
    OPENSSL_cleanse(salted.data(), salted.size());
    answer = without_proof + ",p=" + base64(view(proof));
    return true;
}

bool qor::control::scram_client::verify(std::string_view message) const {
    std::string_view value;
    scram_digest signature;
    return take(message, 'v', value) && read_digest(value, signature) &&
           CRYPTO_memcmp(signature.data(), m_expected.data(), signature.size()) == 0;
}
