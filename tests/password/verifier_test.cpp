// Stored passwords, compared with direct calls of OpenSSL (plain_scram.h) and with test vectors of the standards.
#include "password/verifier.h"
#include "plain_scram.h"
#include "qor/qor.h"

#include <gtest/gtest.h>

#include <random>

namespace {

namespace crypto = qor::crypto;

// RFC 7677: user "user", password "pencil".
const std::string pencil_salt = "W22ZaJ0SNY7soEsUEjb6gQ==";
const std::string pencil = "SCRAM-SHA-256$4096:W22ZaJ0SNY7soEsUEjb6gQ==$WG5d8oPm3OtcPnkdi4Uo7BkeZkBFzpcXkuLmtbsT4qY=:"
                           "wfPLwcE6nTWhTAmQ7tl2KeoiWGPlZqQxSrmfPwDl2dU=";

uint32 last_error() {
    qorString text;
    return qorGetLastError(text);
}

std::string random_text(std::mt19937& random, std::size_t size) {
    std::string text(size, '\0');
    std::generate(text.begin(), text.end(), [&] { return static_cast<char>(random()); });
    return text;
}

TEST(base64, is_that_of_openssl) {
    std::mt19937 random(1);
    for (std::size_t size = 0; size < 100; ++size) {
        const std::string bytes = random_text(random, size);
        const std::string text = crypto::to_base64(bytes);
        EXPECT_EQ(text, plain_scram::base64(bytes));
        std::string back;
        EXPECT_TRUE(crypto::from_base64(text, back));
        EXPECT_EQ(back, bytes);
    }
}

TEST(base64, has_one_form_only) {
    std::string out;
    for (const char* const text : {"A", "AA", "AAA", "AA=", "A===", "====", "AAAA=", "AA==AA==", "AB==", "AAB=",
                                   "AA\n=", " AAA", "AAA ", "AA-A", "AA_A", "A=AA", "=AAA"})
        EXPECT_FALSE(crypto::from_base64(text, out)) << text;
    for (const char* const text : {"", "AA==", "AAA=", "AAAA", "+/+/"})
        EXPECT_TRUE(crypto::from_base64(text, out)) << text;
}

TEST(verifier, rfc_7677) {
    crypto::verifier made;
    std::string salt;
    ASSERT_TRUE(crypto::from_base64(pencil_salt, salt));
    ASSERT_TRUE(crypto::make_verifier("pencil", 4096, salt, made));
    EXPECT_EQ(crypto::format_verifier(made), pencil);
    qorString hash;
    EXPECT_TRUE(qorCreatePasswordHash("pencil", pencil.c_str(), hash));
    EXPECT_EQ(hash.Text(), pencil);
}

TEST(verifier, random_passwords_and_salts) {
    std::mt19937 random(2);
    for (int i = 0; i < 40; ++i) {
        const std::string password = random_text(random, random() % 200);
        const std::string salt = random_text(random, 1 + random() % 80);
        const uint32 iterations = 4096 + random() % 100;
        crypto::verifier made;
        ASSERT_TRUE(crypto::make_verifier(password, iterations, salt, made));
        const std::string key = plain_scram::salted(password, salt, static_cast<int>(iterations));
        EXPECT_EQ(std::string(crypto::bytes_of(made.stored_key)),
                  plain_scram::hash(plain_scram::hmac(key, "Client Key")));
        EXPECT_EQ(std::string(crypto::bytes_of(made.server_key)), plain_scram::hmac(key, "Server Key"));
        crypto::verifier read;
        ASSERT_TRUE(crypto::parse_verifier(crypto::format_verifier(made), read));
        EXPECT_EQ(crypto::format_verifier(read), crypto::format_verifier(made));
        EXPECT_TRUE(crypto::verify_password(password, read));
        EXPECT_FALSE(crypto::verify_password(password + 'x', read));
    }
}

TEST(verifier, every_cut_and_every_changed_character_is_seen) {
    crypto::verifier out;
    ASSERT_TRUE(crypto::parse_verifier(pencil, out));
    for (std::size_t size = 0; size < pencil.size(); ++size)
        EXPECT_FALSE(crypto::parse_verifier(pencil.substr(0, size), out)) << size;
    for (std::size_t at = 0; at < pencil.size(); ++at) {
        std::string changed = pencil;
        changed[at] = '\n';
        EXPECT_FALSE(crypto::parse_verifier(changed, out)) << at;
        EXPECT_FALSE(crypto::parse_verifier(std::string(pencil).insert(at, " "), out)) << at;
    }
    EXPECT_FALSE(crypto::parse_verifier(pencil + "=", out));
    EXPECT_FALSE(crypto::parse_verifier(pencil + ":", out));
    EXPECT_FALSE(crypto::parse_verifier("scram-sha-256" + pencil.substr(13), out));
}

TEST(verifier, bounds_of_iterations) {
    uint32 out;
    for (const char* const text : {"4096", "600000", "2000000"})
        EXPECT_TRUE(crypto::parse_iterations(text, out)) << text;
    for (const char* const text : {"", "0", "1", "4095", "2000001", "1000000000", "99999999999999999999", "04096",
                                   "+4096", "-4096", "4096 ", " 4096", "4096x", "0x1000"})
        EXPECT_FALSE(crypto::parse_iterations(text, out)) << text;
}

TEST(password_hash, the_usual_form) {
    qorString first;
    qorString second;
    ASSERT_TRUE(qorCreatePasswordHash("secret", nullptr, first));
    ASSERT_TRUE(qorCreatePasswordHash("secret", nullptr, second));
    crypto::verifier read;
    ASSERT_TRUE(crypto::parse_verifier(first.Text(), read));
    EXPECT_EQ(read.iterations, 600000u);
    EXPECT_EQ(read.salt.size(), 16u);
    EXPECT_FALSE(first == second);
    EXPECT_TRUE(qorVerifyPassword("secret", first));
    EXPECT_TRUE(qorVerifyPassword("secret", second));
    EXPECT_FALSE(qorVerifyPassword("Secret", first));
    EXPECT_EQ(last_error(), qorError_credentials_refused);
}

// A new hash takes salt and iterations from an earlier one, even if that is truncated after the salt.
TEST(password_hash, any_beginning_with_a_salt_will_do) {
    const std::size_t shortest = pencil.find('$', 14);
    for (std::size_t size = 0; size <= pencil.size(); ++size) {
        qorString hash("old");
        const bool done = qorCreatePasswordHash("pencil", pencil.substr(0, size).c_str(), hash);
        // A salt shorter by four digits is also valid.
        EXPECT_EQ(done, size >= shortest || (size > 19 && (shortest - size) % 4 == 0)) << size;
        if (size >= shortest) {
            EXPECT_EQ(hash.Text(), pencil) << size;
        } else if (!done) {
            EXPECT_EQ(last_error(), qorError_bad_password_hash) << size;
            EXPECT_TRUE(hash == "old");
        }
    }
    qorString hash;
    EXPECT_FALSE(qorCreatePasswordHash("pencil", (pencil + "A").c_str(), hash));
    EXPECT_FALSE(qorCreatePasswordHash("pencil", (pencil.substr(0, shortest) + "$!").c_str(), hash));
    EXPECT_FALSE(qorCreatePasswordHash("pencil", "SCRAM-SHA-256$1:W22ZaJ0SNY7soEsUEjb6gQ==", hash));
    EXPECT_FALSE(qorCreatePasswordHash("pencil", "SCRAM-SHA-256$1000000000:W22ZaJ0SNY7soEsUEjb6gQ==", hash));
    EXPECT_FALSE(qorCreatePasswordHash("pencil", "SCRAM-SHA-256$4096:", hash));
}

TEST(password_hash, bytes_as_they_are) {
    // Composed and decomposed characters make two different passwords.
    qorString hash;
    ASSERT_TRUE(qorCreatePasswordHash("caf\xc3\xa9", pencil.c_str(), hash));
    EXPECT_TRUE(qorVerifyPassword("caf\xc3\xa9", hash));
    EXPECT_FALSE(qorVerifyPassword("cafe\xcc\x81", hash));
    // Bytes that are not UTF-8.
    ASSERT_TRUE(qorCreatePasswordHash("\xff\xfe\x9f", pencil.c_str(), hash));
    EXPECT_TRUE(qorVerifyPassword("\xff\xfe\x9f", hash));
    ASSERT_TRUE(qorCreatePasswordHash("", pencil.c_str(), hash));
    EXPECT_TRUE(qorVerifyPassword("", hash));
    EXPECT_FALSE(qorVerifyPassword(" ", hash));
}

TEST(password_hash, control_characters_are_refused) {
    qorString hash;
    for (int c = 1; c < 256; ++c) {
        const std::string password = std::string("a") + static_cast<char>(c) + "b";
        EXPECT_EQ(qorCreatePasswordHash(password.c_str(), pencil.c_str(), hash), c >= 32 && c != 127) << c;
        const std::string second = std::string("a\xc2") + static_cast<char>(c);
        EXPECT_EQ(qorCreatePasswordHash(second.c_str(), pencil.c_str(), hash),
                  c >= 32 && c != 127 && (c < 0x80 || c > 0x9f))
            << c;
    }
    EXPECT_FALSE(qorCreatePasswordHash("\t", nullptr, hash));
    EXPECT_EQ(last_error(), qorError_bad_password);
    EXPECT_FALSE(qorVerifyPassword("\x1b", pencil.c_str()));
    EXPECT_EQ(last_error(), qorError_bad_password);
}

TEST(password_hash, arguments_that_cannot_be) {
    qorString hash;
    EXPECT_FALSE(qorCreatePasswordHash(nullptr, nullptr, hash));
    EXPECT_EQ(last_error(), qorError_invalid_argument);
    EXPECT_FALSE(qorVerifyPassword(nullptr, pencil.c_str()));
    EXPECT_FALSE(qorVerifyPassword("pencil", nullptr));
    EXPECT_EQ(last_error(), qorError_invalid_argument);
    EXPECT_FALSE(qorVerifyPassword("pencil", "pencil"));
    EXPECT_EQ(last_error(), qorError_bad_password_hash);
}

// Success leaves the last error unchanged.
TEST(password_hash, success_is_silent) {
    qorSetLastError(qorError_disk_full);
    qorString hash;
    EXPECT_TRUE(qorCreatePasswordHash("pencil", pencil.c_str(), hash));
    EXPECT_TRUE(qorVerifyPassword("pencil", hash));
    EXPECT_EQ(last_error(), qorError_disk_full);
}

TEST(password_hash, made_up_passwords) {
    std::string all;
    qorString one;
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(qorGeneratePassword(one));
        ASSERT_EQ(one.Length(), 23u);
        for (uint32 at = 0; at < one.Length(); ++at)
            ASSERT_EQ(one.Text()[at] == '-', at % 6 == 5) << one.Text();
        ASSERT_EQ(all.find(one.Text()), all.npos);
        all += one.Text();
    }
    // On average each of the 32 digits occurs 125 times.
    for (const char c : std::string("23456789abcdefghijkmnpqrstuvwxyz"))
        EXPECT_GT(std::count(all.begin(), all.end(), c), 60) << c;
}

} // namespace
