#include "net/address.h"

#include <gtest/gtest.h>

#include <initializer_list>

namespace {

qoraddr_ipv6 address_of(std::initializer_list<uint16> groups) {
    qoraddr_ipv6 address{};
    uint8* at = address.bytes;
    for (const uint16 group : groups) {
        *at++ = static_cast<uint8>(group >> 8);
        *at++ = static_cast<uint8>(group);
    }
    return address;
}

std::string text_of(std::initializer_list<uint16> groups, uint32 scope = 0) {
    qorString text("what it held");
    qorAddressToString(address_of(groups), scope, text);
    return text.Text();
}

std::string text_of(const qorHostAddress& address, bool with_scope) {
    qorString text("what it held");
    qorAddressToString(address, with_scope, text);
    return text.Text();
}

// The recommendations of RFC 5952, with an example for each.
TEST(address, ipv6_in_its_shortest_form) {
    EXPECT_EQ(text_of({0, 0, 0, 0, 0, 0, 0, 0}), "::");
    EXPECT_EQ(text_of({0, 0, 0, 0, 0, 0, 0, 1}), "::1");
    EXPECT_EQ(text_of({1, 0, 0, 0, 0, 0, 0, 0}), "1::");
    EXPECT_EQ(text_of({0x2001, 0xdb8, 0, 0, 1, 0, 0, 1}), "2001:db8::1:0:0:1");    // the first of equal runs
    EXPECT_EQ(text_of({0x2001, 0, 0, 1, 0, 0, 0, 1}), "2001:0:0:1::1");            // the longest run
    EXPECT_EQ(text_of({0x2001, 0xdb8, 0, 1, 1, 1, 1, 1}), "2001:db8:0:1:1:1:1:1"); // a single zero stays
    EXPECT_EQ(text_of({0x2001, 0xdb8, 1, 2, 3, 4, 0, 0}), "2001:db8:1:2:3:4::");
    EXPECT_EQ(text_of({0, 0, 1, 2, 3, 4, 5, 6}), "::1:2:3:4:5:6");
    EXPECT_EQ(text_of({0xABCD, 0xEF01, 0x2345, 0x6789, 0xabcd, 0xef01, 0x2345, 0x6789}),
              "abcd:ef01:2345:6789:abcd:ef01:2345:6789");
}

TEST(address, ipv6_with_an_ipv4_address_in_it) {
    EXPECT_EQ(text_of({0, 0, 0, 0, 0, 0xffff, 0xc000, 0x0201}), "::ffff:192.0.2.1");
    EXPECT_EQ(text_of({0, 0, 0, 0, 0, 0, 0xc000, 0x0201}), "::192.0.2.1");
    EXPECT_EQ(text_of({0, 0, 0, 0, 0, 0xffff, 0, 0}), "::ffff:0.0.0.0");
    EXPECT_EQ(text_of({0x64, 0xff9b, 0, 0, 0, 0, 0xc000, 0x0201}),
              "64:ff9b::c000:201"); // the prefix of a translator is not printed as IPv4
}

TEST(address, scope_follows) {
    EXPECT_EQ(text_of({0xfe80, 0, 0, 0, 0, 0, 0, 1}, 4'000'000'000), "fe80::1%4000000000");
    EXPECT_EQ(text_of({0x2001, 0xdb8, 0, 0, 0, 0, 0, 1}, 1), "2001:db8::1%1"); // not link-local: a number
}

TEST(address, host_of_either_family) {
    EXPECT_EQ(text_of(qorHostAddress{}, true), "");
    EXPECT_EQ(text_of({.family = qorAddressFamily::ipv4, .ipv4 = {{255, 0, 10, 1}}}, true), "255.0.10.1");
    qorHostAddress link_local{.family = qorAddressFamily::ipv6, .scope = 4'000'000'000};
    link_local.ipv6 = address_of({0xfe80, 0, 0, 0, 0, 0, 0, 1});
    EXPECT_EQ(text_of(link_local, true), "fe80::1%4000000000");
    EXPECT_EQ(text_of(link_local, false), "fe80::1");
}

} // namespace
