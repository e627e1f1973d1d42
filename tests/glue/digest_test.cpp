// Digest engines as a client sees them, compared with OpenSSL.
#include "qor/qor.h"
#include "support/last_error.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using bytes = std::vector<uint8>;
using engine_pointer = zetSmartPointer<IQORDigestEngine>;

using qor::test::last_error;

engine_pointer make(const char* algorithm) {
    engine_pointer engine;
    EXPECT_TRUE(qorCreateDigestEngine(algorithm, engine.Out())) << last_error();
    return engine;
}

bytes digest_of(IQORDigestEngine* engine) {
    uint8_Array out;
    out.Append(7); // previous content
    EXPECT_TRUE(engine->GetDigest(out)) << last_error();
    return {out.GetDataPtr(), out.GetDataPtr() + out.GetCount()};
}

bytes of_openssl(const char* algorithm, const bytes& message) {
    bytes digest(EVP_MAX_MD_SIZE);
    unsigned size = 0;
    EXPECT_EQ(
        EVP_Digest(message.data(), message.size(), digest.data(), &size, EVP_get_digestbyname(algorithm), nullptr), 1);
    digest.resize(size);
    return digest;
}

bytes random_bytes(std::size_t size, std::mt19937& random) {
    bytes made(size);
    std::generate(made.begin(), made.end(), [&random] { return static_cast<uint8>(random()); });
    return made;
}

class digest : public testing::TestWithParam<const char*> {};

INSTANTIATE_TEST_SUITE_P(algorithms, digest, testing::Values("md5", "sha1", "sha256", "sha512"),
                         [](const auto& each) { return std::string(each.param); });

} // namespace

TEST_P(digest, random_messages_in_random_pieces) {
    std::mt19937 random(1);
    const engine_pointer engine = make(GetParam());
    for (int round = 0; round < 200; ++round) {
        const bytes message = random_bytes(random() % 5000, random);
        const std::size_t largest = std::size_t{1} << random() % 12;
        EXPECT_TRUE(engine->Reset());
        for (std::size_t at = 0; at < message.size();) {
            const std::size_t size = std::min<std::size_t>(random() % (largest + 1), message.size() - at);
            EXPECT_TRUE(engine->Update(message.data() + at, static_cast<uint32>(size)));
            at += size;
        }
        EXPECT_EQ(digest_of(*engine), of_openssl(GetParam(), message)) << "round " << round;
    }
}

TEST_P(digest, of_nothing) {
    const engine_pointer engine = make(GetParam());
    EXPECT_EQ(digest_of(*engine), of_openssl(GetParam(), {}));
    EXPECT_TRUE(engine->Update(nullptr, 0));
    EXPECT_EQ(digest_of(*engine), of_openssl(GetParam(), {}));
}

TEST_P(digest, can_be_taken_on_the_way) {
    std::mt19937 random(2);
    const bytes message = random_bytes(400, random);
    const engine_pointer engine = make(GetParam());
    for (std::size_t i = 0; i < message.size(); ++i) {
        const bytes so_far(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(i));
        EXPECT_EQ(digest_of(*engine), of_openssl(GetParam(), so_far));
        EXPECT_EQ(digest_of(*engine), of_openssl(GetParam(), so_far));
        engine->Update(&message[i], 1);
    }
}

TEST_P(digest, two_engines_do_not_disturb_each_other) {
    const engine_pointer one = make(GetParam());
    const engine_pointer two = make(GetParam());
    one->Update("a", 1);
    two->Update("b", 1);
    EXPECT_EQ(digest_of(*one), of_openssl(GetParam(), {'a'}));
    EXPECT_EQ(digest_of(*two), of_openssl(GetParam(), {'b'}));
}

TEST_P(digest, interfaces) {
    const engine_pointer engine = make(GetParam());
    for (const char* const name : {"IQORDigestEngine", "IQORInterface"}) {
        void* out = nullptr;
        EXPECT_EQ(engine->QueryInterface(name, &out), 1);
        EXPECT_EQ(out, *engine);
        engine->Release();
    }
    void* out = this;
    EXPECT_EQ(engine->QueryInterface("IQORErrorMessage", &out), 0);
    EXPECT_EQ(out, this);
}

TEST_P(digest, on_many_threads_at_once) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([] {
            const engine_pointer engine = make(GetParam());
            for (int piece = 0; piece < 100; ++piece)
                engine->Update("0123456789", 10);
            bytes message;
            for (int piece = 0; piece < 100; ++piece)
                message.insert(message.end(), {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'});
            EXPECT_EQ(digest_of(*engine), of_openssl(GetParam(), message));
        });
    for (std::thread& each : threads)
        each.join();
}

TEST(digests, names_that_are_none) {
    for (const char* const name : {"", "MD5", "md5 ", "md", "md55", "sha-256", "sha224", "SHA256"}) {
        IQORDigestEngine* engine = nullptr;
        EXPECT_FALSE(qorCreateDigestEngine(name, &engine));
        EXPECT_EQ(engine, nullptr);
        EXPECT_EQ(last_error(), std::string("There is no digest algorithm '") + std::string(name) + "'.");
    }
}
