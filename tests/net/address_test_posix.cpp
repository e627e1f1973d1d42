// Texts of addresses, compared with those of the C library.
#include "net/address.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <algorithm>
#include <iterator>
#include <random>
#include <string>

namespace {

TEST(address, like_the_c_library) {
    std::mt19937 random(1);
    for (int round = 0; round < 100'000; ++round) {
        // Each group is often 0, and so is each of its digits.
        qoraddr_ipv6 address{};
        const uint32 zeros = random() & 0xff, masks = random();
        for (int i = 0; i < 16; ++i)
            if ((zeros >> i / 2 & 1) == 0)
                address.bytes[i] = static_cast<uint8>(random() & ((masks >> i & 1) != 0 ? 0xff : 0x0f));
        char expected[INET6_ADDRSTRLEN];
        ASSERT_NE(inet_ntop(AF_INET6, address.bytes, expected, sizeof expected), nullptr);
        ASSERT_EQ(qor::net::to_text(address, 0), expected);

        const qoraddr_ipv4 four = {{address.bytes[0], address.bytes[1], address.bytes[2], address.bytes[3]}};
        ASSERT_NE(inet_ntop(AF_INET, four.bytes, expected, sizeof expected), nullptr);
        ASSERT_EQ(qor::net::to_text(four), expected);
    }
}

// Texts that are addresses or nearly so.
TEST(address, is_read_like_the_c_library_does) {
    constexpr const char* pieces[] = {":",    "::",   ".",     "0",       "1", "12", "255", "256",          "01",
                                      "abcd", "ABCD", "12345", "1.2.3.4", "g", "%",  " ",   "1:2:3:4:5:6:7"};
    std::mt19937 random(1);
    int valid = 0;
    for (int round = 0; round < 200'000; ++round) {
        std::string text;
        for (uint32 count = 1 + random() % 8; count != 0; --count)
            text.append(pieces[random() % std::size(pieces)]);
        qoraddr_ipv6 six{};
        qoraddr_ipv4 four{};
        unsigned char expected[sizeof(in6_addr)];
        const bool is_six = inet_pton(AF_INET6, text.c_str(), expected) == 1;
        ASSERT_EQ(qor::net::from_text(text, six), is_six) << text;
        ASSERT_TRUE(!is_six || std::equal(expected, std::end(expected), six.bytes)) << text;
        const bool is_four = inet_pton(AF_INET, text.c_str(), expected) == 1;
        ASSERT_EQ(qor::net::from_text(text, four), is_four) << text;
        ASSERT_TRUE(!is_four || std::equal(expected, expected + 4, four.bytes)) << text;
        valid += is_six || is_four;
    }
    EXPECT_GT(valid, 1000);
}

TEST(address, scope_by_the_name_of_its_interface) {
    const uint32 loopback = if_nametoindex("lo");
    ASSERT_NE(loopback, 0u);
    qoraddr_ipv6 address{{0xfe, 0x80}};
    EXPECT_EQ(qor::net::to_text(address, loopback), "fe80::%lo");
    qorHostAddress read;
    ASSERT_TRUE(qor::net::from_text("fe80::%lo", read));
    EXPECT_EQ(read.scope, loopback);
    bool bad_scope = false;
    EXPECT_FALSE(qor::net::from_text("fe80::%none", read, &bad_scope));
    EXPECT_TRUE(bad_scope);
    EXPECT_FALSE(qor::net::from_text("fc80::%lo", read, &bad_scope)); // as the C library has it
    EXPECT_TRUE(bad_scope);
    address = {{0xff, 0x02}};
    EXPECT_EQ(qor::net::to_text(address, loopback), "ff02::%lo");
    address = {{0xfc, 0x80}};
    EXPECT_EQ(qor::net::to_text(address, loopback), "fc80::%" + std::to_string(loopback));
}

} // namespace
