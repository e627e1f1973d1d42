// The encryption of passwords: the published vectors of AES-GCM with keys of 256 bits, and the form.
#include "qor/qor.h"
#include "secret/encrypted_text.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

namespace secret = qor::secret;

std::string from_hexadecimal(std::string_view digits) {
    std::string bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2)
        bytes.append(1, static_cast<char>(std::stoi(std::string(digits.substr(i, 2)), nullptr, 16)));
    return bytes;
}

template <class ARRAY>
ARRAY array_of(std::string_view digits) {
    const std::string bytes = from_hexadecimal(digits);
    ARRAY out{};
    EXPECT_EQ(bytes.size(), out.size());
    std::copy_n(bytes.begin(), std::min(bytes.size(), out.size()), out.begin());
    return out;
}

// The test cases 13 to 16 of the specification of GCM.
struct vector {
    const char* key;
    const char* nonce;
    const char* bound;
    const char* plain;
    const char* cipher;
    const char* tag;
};

constexpr char zero_key[] = "0000000000000000000000000000000000000000000000000000000000000000";
constexpr char zero_nonce[] = "000000000000000000000000";
constexpr char other_key[] = "feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308";
constexpr char other_nonce[] = "cafebabefacedbaddecaf888";

const vector vectors[] = {
    {zero_key, zero_nonce, "", "", "", "530f8afbc74536b9a963b4f1c4cb738b"},
    {zero_key, zero_nonce, "", "00000000000000000000000000000000", "cea7403d4d606b6e074ec5d3baf39d18",
     "d0d1c8a799996bf0265b98b5d48ab919"},
    {other_key, other_nonce, "",
     "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a721c3c0c95956809532fcf0e2449a6b525"
     "b16aedf5aa0de657ba637b391aafd255",
     "522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa8cb08e48590dbb3da7b08b1056828838"
     "c5f61e6393ba7a0abcc9f662898015ad",
     "b094dac5d93471bdec1a502270e3cc6c"},
    {other_key, other_nonce, "feedfacedeadbeeffeedfacedeadbeefabaddad2",
     "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a721c3c0c95956809532fcf0e2449a6b525"
     "b16aedf5aa0de657ba637b39",
     "522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa8cb08e48590dbb3da7b08b1056828838"
     "c5f61e6393ba7a0abcc9f662",
     "76fc6ece0f4e1768cddf8853bb2d551b"}};

} // namespace

TEST(encrypted_text, published_vectors) {
    for (const vector& each : vectors) {
        const auto key = array_of<secret::key_bytes>(each.key);
        const auto nonce = array_of<secret::nonce_bytes>(each.nonce);
        const std::string bound = from_hexadecimal(each.bound);
        const std::string plain = from_hexadecimal(each.plain);
        std::string cipher;
        secret::tag_bytes tag{};
        ASSERT_TRUE(secret::seal(key, nonce, bound, plain, cipher, tag));
        EXPECT_EQ(cipher, from_hexadecimal(each.cipher));
        EXPECT_EQ(tag, array_of<secret::tag_bytes>(each.tag));
        std::string back;
        bool is_genuine = false;
        ASSERT_TRUE(secret::unseal(key, nonce, bound, cipher, tag, back, is_genuine));
        EXPECT_TRUE(is_genuine);
        EXPECT_EQ(back, plain);
        for (std::size_t bit = 0; bit < tag.size() * 8; ++bit) {
            secret::tag_bytes changed = tag;
            changed[bit / 8] = static_cast<uint8>(changed[bit / 8] ^ 1 << bit % 8);
            ASSERT_TRUE(secret::unseal(key, nonce, bound, cipher, changed, back, is_genuine));
            EXPECT_FALSE(is_genuine);
            EXPECT_EQ(back, "");
        }
    }
}

TEST(encrypted_text, is_read_as_it_was_written) {
    for (std::size_t size = 0; size < 100; ++size) {
        secret::encrypted value;
        value.key_id = "0123456789abcdef";
        value.cipher.assign(size, '\xff');
        value.nonce.fill(static_cast<uint8>(size));
        value.tag.fill(static_cast<uint8>(~size));
        const std::string text = secret::format(value);
        secret::encrypted read;
        uint32 number = 0;
        ASSERT_EQ(secret::parse(text, read, number), secret::form::known) << text;
        EXPECT_EQ(number, 1u);
        EXPECT_EQ(secret::format(read), text);
        EXPECT_EQ(read.cipher, value.cipher);
        EXPECT_EQ(read.nonce, value.nonce);
        EXPECT_EQ(read.tag, value.tag);
    }
}

TEST(encrypted_text, base64url_has_one_form_only) {
    std::string out;
    for (const char* const text : {"A", "AB", "AAB", "AA=", "AA==", "AAA=", "+/+/", "AA\n", " AAA", "AAAAA"})
        EXPECT_FALSE(qor::crypto::from_base64url(text, out)) << text;
    for (const char* const text : {"", "AA", "AAA", "AAAA", "-_-_"}) {
        EXPECT_TRUE(qor::crypto::from_base64url(text, out)) << text;
        EXPECT_EQ(qor::crypto::to_base64url(out), text);
    }
}

TEST(encrypted_password, without_a_text) {
    qorString password("as it was");
    EXPECT_FALSE(qorDecryptPassword2(nullptr, "", password));
    qorString text;
    EXPECT_EQ(qorGetLastError(text), qorError_invalid_argument);
    EXPECT_FALSE(qorDecryptPassword2("", "", password));
    EXPECT_EQ(qorGetLastError(text), qorError_encrypted_password);
    EXPECT_TRUE(password == "as it was");
}

// Whether the memory is overwritten is a question for whole runs.
TEST(secret_string, is_empty_when_it_was_wiped) {
    qorString text("some secret");
    qorWipeString(text);
    EXPECT_TRUE(text.IsEmpty());
    qorSecretString empty; // has no storage
    qorWipeString(empty);
    EXPECT_TRUE(empty.IsEmpty());
}
