// SCRAM-SHA-256 step by step, as in RFC 5802, for peers that get one step wrong. It shares no code with the module.
#pragma once

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <array>
#include <map>
#include <string>
#include <string_view>

namespace plain_scram {

inline std::string base64(std::string_view bytes) {
    std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    out.resize(static_cast<std::size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                                        reinterpret_cast<const unsigned char*>(bytes.data()),
                                                        static_cast<int>(bytes.size()))));
    return out;
}

inline std::string from_base64(std::string text) {
    std::string out(text.size(), '\0');
    EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()), reinterpret_cast<const unsigned char*>(text.data()),
                    static_cast<int>(text.size()));
    out.resize(text.size() / 4 * 3);
    for (; !text.empty() && text.back() == '='; text.pop_back())
        out.pop_back();
    return out;
}

inline std::string hmac(std::string_view key, std::string_view message) {
    std::string out(32, '\0');
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(message.data()),
         message.size(), reinterpret_cast<unsigned char*>(out.data()), nullptr);
    return out;
}

inline std::string hash(std::string_view message) {
    std::string out(32, '\0');
    EVP_Digest(message.data(), message.size(), reinterpret_cast<unsigned char*>(out.data()), nullptr, EVP_sha256(),
               nullptr);
    return out;
}

inline std::string salted(const std::string& password, const std::string& salt, int iterations) {
    std::string out(32, '\0');
    PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()),
                      reinterpret_cast<const unsigned char*>(salt.data()), static_cast<int>(salt.size()), iterations,
                      EVP_sha256(), 32, reinterpret_cast<unsigned char*>(out.data()));
    return out;
}

inline std::string exclusive_or(std::string left, const std::string& right) {
    for (std::size_t i = 0; i < left.size(); ++i)
        left[i] = static_cast<char>(left[i] ^ right[i]);
    return left;
}

// Returns "name:SCRAM-SHA-256$iterations:salt$StoredKey:ServerKey".
inline std::string account(const std::string& name, const std::string& password, int iterations = 4096) {
    const std::string salt = hash(name + password).substr(0, 16);
    const std::string key = salted(password, salt, iterations);
    return name + ":SCRAM-SHA-256$" + std::to_string(iterations) + ':' + base64(salt) + '$' +
           base64(hash(hmac(key, "Client Key"))) + ':' + base64(hmac(key, "Server Key")) + '\n';
}

// Returns the attributes of a message: "r=...,s=...".
inline std::map<char, std::string> attributes(const std::string& message) {
    std::map<char, std::string> out;
    for (std::size_t at = 0; at < message.size();) {
        const std::size_t end = std::min(message.find(',', at), message.size());
        if (end - at >= 2 && message[at + 1] == '=')
            out[message[at]] = message.substr(at + 2, end - at - 2);
        at = end + 1;
    }
    return out;
}

inline const std::string header = "p=tls-exporter,,";

// The client's messages.
struct client {
    std::string name;
    std::string password;
    std::string binding;
    std::string gs2 = header;
    std::string nonce = "rOprNGfwEbeRWgbNEkqO";

    std::string first() const { return gs2 + bare(); }
    std::string bare() const { return "n=" + name + ",r=" + nonce; }

    std::string final(const std::string& server_first) const {
        auto of = attributes(server_first);
        const std::string key = salted(password, from_base64(of['s']), std::stoi(of['i']));
        const std::string client_key = hmac(key, "Client Key");
        const std::string without_proof = "c=" + base64(gs2 + binding) + ",r=" + of['r'];
        const std::string proof =
            exclusive_or(client_key, hmac(hash(client_key), bare() + ',' + server_first + ',' + without_proof));
        return without_proof + ",p=" + base64(proof);
    }

    // Returns the answer expected from the server.
    std::string expected(const std::string& server_first, const std::string& last) const {
        auto of = attributes(server_first);
        const std::string key = salted(password, from_base64(of['s']), std::stoi(of['i']));
        return "v=" + base64(hmac(hmac(key, "Server Key"),
                                  bare() + ',' + server_first + ',' + last.substr(0, last.rfind(",p="))));
    }
};

// The messages of a server that knows the password.
struct server {
    std::string password;
    std::string iterations = "4096";
    std::string salt = "0123456789abcdef";

    std::string first(const std::string& client_first) const {
        return "r=" + attributes(client_first)['r'] + "3rfcNHYJY1ZVvWVs7j,s=" + base64(salt) + ",i=" + iterations;
    }

    std::string final(const std::string& client_first, const std::string& client_final) const {
        const std::string key = salted(password, salt, std::stoi(iterations));
        const std::string bare = client_first.substr(client_first.find("n="));
        return "v=" + base64(hmac(hmac(key, "Server Key"), bare + ',' + first(client_first) + ',' +
                                                               client_final.substr(0, client_final.rfind(",p="))));
    }
};

} // namespace plain_scram
