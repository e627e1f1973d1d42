// Texts of addresses, compared with those of the C library.
#include "net/address.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <random>

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

TEST(address, scope_by_the_name_of_its_interface) {
    const uint32 loopback = if_nametoindex("lo");
    ASSERT_NE(loopback, 0u);
    qoraddr_ipv6 address{{0xfe, 0x80}};
    EXPECT_EQ(qor::net::to_text(address, loopback), "fe80::%lo");
    address = {{0xff, 0x02}};
    EXPECT_EQ(qor::net::to_text(address, loopback), "ff02::%lo");
    address = {{0xfc, 0x80}};
    EXPECT_EQ(qor::net::to_text(address, loopback), "fc80::%" + std::to_string(loopback));
}

} // namespace
