// Our MD5, compared with OpenSSL's.
#include "digest/md5.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <array>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using digest = std::array<uint8, qor::digest::md5::digest_size>;
using bytes = std::vector<uint8>;

digest finished(qor::digest::md5 message) {
    uint8 result[qor::digest::md5::digest_size];
    message.finish(result);
    return std::to_array(result);
}

digest of_openssl(const bytes& message) {
    digest result;
    unsigned size = 0;
    EXPECT_EQ(EVP_Digest(message.data(), message.size(), result.data(), &size, EVP_md5(), nullptr), 1);
    EXPECT_EQ(size, result.size());
    return result;
}

std::string hex_digest(std::string_view text) {
    qor::digest::md5 message;
    message.update(reinterpret_cast<const uint8*>(text.data()), text.size());
    std::string hex;
    for (const uint8 byte : finished(message)) {
        hex += "0123456789abcdef"[byte >> 4];
        hex += "0123456789abcdef"[byte & 15];
    }
    return hex;
}

bytes random_bytes(std::size_t size, std::mt19937& random) {
    bytes made(size);
    for (uint8& byte : made)
        byte = static_cast<uint8>(random());
    return made;
}

} // namespace

TEST(md5, vectors_of_rfc_1321) {
    EXPECT_EQ(hex_digest(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(hex_digest("a"), "0cc175b9c0f1b6a831c399e269772661");
    EXPECT_EQ(hex_digest("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(hex_digest("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(hex_digest("abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
    EXPECT_EQ(hex_digest("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
              "d174ab98d277d9f5a5611c2c9f419d9f");
    EXPECT_EQ(hex_digest("12345678901234567890123456789012345678901234567890123456789012345678901234567890"),
              "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(md5, every_length_of_a_few_blocks) {
    std::mt19937 random(1);
    const bytes text = random_bytes(300, random);
    for (std::size_t size = 0; size <= text.size(); ++size) {
        const bytes message(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(size));
        qor::digest::md5 ours;
        ours.update(message.data(), message.size());
        EXPECT_EQ(finished(ours), of_openssl(message)) << size;
    }
}

TEST(md5, every_way_to_cut_a_message_in_two) {
    std::mt19937 random(2);
    const bytes message = random_bytes(200, random);
    const digest expected = of_openssl(message);
    for (std::size_t size = 0; size <= message.size(); ++size) {
        qor::digest::md5 ours;
        ours.update(message.data(), size);
        ours.update(message.data() + size, message.size() - size);
        EXPECT_EQ(finished(ours), expected) << size;
    }
}

TEST(md5, random_messages_in_random_pieces) {
    std::mt19937 random(3);
    for (int round = 0; round < 300; ++round) {
        const bytes message = random_bytes(random() % 20000, random);
        const std::size_t largest = std::size_t{1} << random() % 14;
        qor::digest::md5 ours;
        for (std::size_t at = 0; at < message.size();) {
            const std::size_t size = std::min<std::size_t>(random() % (largest + 1), message.size() - at);
            ours.update(message.data() + at, size);
            at += size;
        }
        EXPECT_EQ(finished(ours), of_openssl(message)) << "round " << round;
    }
}

TEST(md5, a_message_of_more_than_2_to_the_32_bits) {
    const bytes piece(1 << 20, 'x');
    constexpr int pieces = 513; // of a mebibyte each: the count of bits needs more than 32 bits
    qor::digest::md5 ours;
    EVP_MD_CTX* const theirs = EVP_MD_CTX_new();
    ASSERT_EQ(EVP_DigestInit_ex(theirs, EVP_md5(), nullptr), 1);
    for (int i = 0; i < pieces; ++i) {
        ours.update(piece.data(), piece.size());
        ASSERT_EQ(EVP_DigestUpdate(theirs, piece.data(), piece.size()), 1);
    }
    digest expected;
    ASSERT_EQ(EVP_DigestFinal_ex(theirs, expected.data(), nullptr), 1);
    EVP_MD_CTX_free(theirs);
    EXPECT_EQ(finished(ours), expected);
}
