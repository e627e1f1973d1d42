// The client's side of a login: an input is the two messages of a server with a line end between. "$R" stands for the
// client's nonce, and "$V" for the right signature. A plain reader of messages says what must come out.
//
// Every call of OpenSSL's key derivation, the module's and the plain side's, comes to a quick one below by the linker's
// --wrap. Thousands of rounds of a hash that is not ours would be all that a run does, and a salt or a number of
// iterations that was misread shows in the result of one round as well.
#include "login/scram_client.h"

#include "plain_messages.h"
#include "plain_scram.h"

#include <cstdint>

extern "C" decltype(PKCS5_PBKDF2_HMAC) __real_PKCS5_PBKDF2_HMAC;
extern "C" decltype(PKCS5_PBKDF2_HMAC) __wrap_PKCS5_PBKDF2_HMAC;

// One round, into which the number of iterations goes as a part of the salt.
int __wrap_PKCS5_PBKDF2_HMAC(const char* password, int password_size, const unsigned char* salt, int salt_size,
                             int iterations, const EVP_MD* hash, int key_size, unsigned char* key) {
    std::string both(reinterpret_cast<const char*>(salt), static_cast<std::size_t>(salt_size));
    both += ' ' + std::to_string(iterations);
    return __real_PKCS5_PBKDF2_HMAC(password, password_size, reinterpret_cast<const unsigned char*>(both.data()),
                                    static_cast<int>(both.size()), 1, hash, key_size, key);
}

namespace {

using qor::control::scram_client;

constexpr std::array<uint8, 32> binding = {7, 8, 9};

bool is_plain_base64(const std::string& text) {
    for (const char c : text)
        if (std::string("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=").find(c) ==
            std::string::npos)
            return false;
    return !text.empty() && text.size() % 4 == 0 &&
           text.find('=') + 2 >= text.size() - (text.find('=') == text.npos ? text.size() : 0) &&
           plain_scram::base64(plain_scram::from_base64(text)) == text;
}

// 0: not what a client may go on with.
unsigned plain_iterations(const std::string& text) {
    if (text.empty() || text.size() > 7 || text[0] == '0' || text.find_first_not_of("0123456789") != text.npos)
        return 0;
    const unsigned number = static_cast<unsigned>(std::stoul(text));
    return number >= 4096 && number <= 2000000 ? number : 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t end = std::min(input.find('\n'), input.size());
    scram_client client("ada", "secret", binding);
    const std::string first = client.first();
    const std::string nonce = plain_scram::attributes(first)['r'];
    const std::string answer = replaced(input.substr(0, end), "$R", nonce);

    const auto fields = fields_of(answer);
    const bool formed = fields.size() >= 3 && is_field(fields[0], 'r') && is_field(fields[1], 's') &&
                        is_field(fields[2], 'i') && are_extensions(fields, 3);
    const std::string server_nonce = formed ? fields[0].substr(2) : "";
    const unsigned iterations = formed ? plain_iterations(fields[2].substr(2)) : 0;
    const bool fits = formed && is_plain_nonce(server_nonce) && server_nonce.size() > nonce.size() &&
                      server_nonce.substr(0, nonce.size()) == nonce && is_plain_base64(fields[1].substr(2)) &&
                      iterations != 0;

    std::string last;
    require(client.final(answer, last) == fits && last.empty() == !fits);
    if (!fits) {
        require(!client.verify(input));
        return 0;
    }
    const plain_scram::client plain{"ada", "secret",
                                    std::string(reinterpret_cast<const char*>(binding.data()), binding.size()),
                                    plain_scram::header, nonce};
    require(last == plain.final(answer));
    const std::string expected = plain.expected(answer, last);
    const std::string proof = end == input.size() ? "" : replaced(input.substr(end + 1), "$V", expected);
    const auto parts = fields_of(proof);
    require(client.verify(proof) == (parts[0] == expected && are_extensions(parts, 1)));
    return 0;
}
