// Texts of services, and what is wrong with those that are none.
#include "support/last_error.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using qor::test::last_error;

std::string text_of(const qorServiceDescriptor& service) {
    qorString text("what it held");
    service.GetText(text);
    return {text.Text(), text.Length()};
}

// Reads a text, checks that what was read can be written and read again, and returns what was written.
std::string again(const char* text, const qorServiceDefaults& defaults = {}) {
    qorServiceDescriptor first;
    if (!qorParseServiceDescriptor(text, defaults, first))
        return last_error();
    const std::string written = text_of(first);
    qorServiceDescriptor second;
    EXPECT_TRUE(qorParseServiceDescriptor(written.c_str(), second)) << written << ": " << last_error();
    EXPECT_EQ(first, second) << written;
    return written;
}

// The error behind the text that it names.
std::string fault(const std::string& text, const qorServiceDefaults& defaults = {}) {
    qorServiceDescriptor kept;
    kept.port = 7;
    EXPECT_FALSE(qorParseServiceDescriptor(text.c_str(), defaults, kept)) << text;
    EXPECT_EQ(kept.port, 7);
    const std::string begin = "'" + text + "' does not name a service: ";
    EXPECT_EQ(last_error().rfind(begin, 0), 0u) << last_error();
    return last_error().substr(std::min(begin.size(), last_error().size()));
}

TEST(service_descriptor, host_and_port) {
    qorServiceDescriptor service;
    ASSERT_TRUE(qorParseServiceDescriptor("www.example.org:8080", service));
    EXPECT_EQ(service.kind, qorServiceKind::tcp);
    EXPECT_EQ(service.host, "www.example.org");
    EXPECT_EQ(service.address.family, qorAddressFamily::none);
    EXPECT_EQ(service.port, 8080);
    EXPECT_TRUE(service.service.IsEmpty());
    for (const char* const text : {"a:0", "a-b_c.d:1", "münchen.example:65535", "example.org.:80", "127.0.0.1:80",
                                   "1.2.3.com:80", "a0x1f:80", ":80", "h.0xg:80"})
        EXPECT_EQ(again(text), text);
    EXPECT_EQ(again("a:00080"), "a:80");
}

TEST(service_descriptor, ipv4_addresses) {
    qorServiceDescriptor service;
    ASSERT_TRUE(qorParseServiceDescriptor("192.0.2.1:80", service));
    EXPECT_EQ(service.address, (qorHostAddress{.family = qorAddressFamily::ipv4, .ipv4 = {{192, 0, 2, 1}}}));
    EXPECT_EQ(service.host, "192.0.2.1");
}

TEST(service_descriptor, ipv6_addresses) {
    qorServiceDescriptor service;
    ASSERT_TRUE(qorParseServiceDescriptor("[2001:DB8::0:1%7]:80", service));
    EXPECT_EQ(service.address.family, qorAddressFamily::ipv6);
    EXPECT_EQ(service.address.scope, 7u);
    EXPECT_EQ(service.host, "2001:db8::1%7");
    EXPECT_EQ(again("[::]:80"), "[::]:80");
    EXPECT_EQ(again("[fe80::1%4000000000]:80"), "[fe80::1%4000000000]:80");
    EXPECT_EQ(again("[::ffff:192.0.2.1]:80"), "[::ffff:192.0.2.1]:80");
    EXPECT_EQ(again("[0:0:0:0:0:0:0:1]:80"), "[::1]:80");
}

TEST(service_descriptor, schemes) {
    EXPECT_EQ(again("tcp://example.org:80"), "example.org:80");
    EXPECT_EQ(again("TCP://[::1]:80"), "[::1]:80");
    EXPECT_EQ(again("tcp://unix:80"), "tcp://unix:80");
    EXPECT_EQ(again("tcp://Pipe:80"), "tcp://Pipe:80");
    EXPECT_EQ(again("tcp:80"), "tcp:80");
    EXPECT_EQ(again("unix:/run/x y.sock"), "unix:/run/x y.sock");
    EXPECT_EQ(again("UNIX:80"), "unix:80");
    EXPECT_EQ(again("unix:\xff:://"), "unix:\xff:://");
    EXPECT_EQ(again("pipe:a name.1"), "pipe:a name.1");
    qorServiceDescriptor service;
    ASSERT_TRUE(qorParseServiceDescriptor("pipe:x", service));
    EXPECT_EQ(service.kind, qorServiceKind::pipe);
    EXPECT_EQ(service.path, "x");
    EXPECT_EQ(text_of(qorServiceDescriptor()), "");
}

TEST(service_descriptor, defaults) {
    EXPECT_EQ(again("example.org", {.port = 80}), "example.org:80");
    EXPECT_EQ(again("[::1]", {.port = 0}), "[::1]:0");
    EXPECT_EQ(again("a:1", {.host = "b", .port = 2}), "a:1");
    EXPECT_EQ(again(":1", {.host = "b"}), "b:1");
    EXPECT_EQ(again("tcp://:1", {.host = "::1"}), "[::1]:1");
    EXPECT_EQ(again(":1", {.host = "[::1]"}), "[::1]:1");
    EXPECT_EQ(again(":1", {.host = ""}), ":1");
    qorServiceDescriptor service;
    EXPECT_FALSE(qorParseServiceDescriptor(":1", {.host = "a b"}, service));
    EXPECT_EQ(last_error(), "qorParseServiceDescriptor was called with an invalid argument: a b.");
    EXPECT_FALSE(qorParseServiceDescriptor("a", {.port = 65536}, service));
    EXPECT_EQ(last_error(), "qorParseServiceDescriptor was called with an invalid argument: 65536.");
}

TEST(service_descriptor, says_what_is_wrong_and_where) {
    const std::string odd = "there is a character that cannot stand there.";
    EXPECT_EQ(fault(""), "at byte 1, there is nothing.");
    EXPECT_EQ(fault("tcp://"), "at byte 7, there is nothing.");
    EXPECT_EQ(fault("example.org"), "it has no port, and there is none by default.");
    EXPECT_EQ(fault("a b:80"), "at byte 2, " + odd);
    EXPECT_EQ(fault("a@b:80"), "at byte 2, " + odd);
    EXPECT_EQ(fault("tcp://a/:80"), "at byte 8, " + odd);
    EXPECT_EQ(fault("a\xff:80"), "at byte 2, " + odd);
    EXPECT_EQ(fault("a:80/"), "at byte 5, " + odd);
    EXPECT_EQ(fault("a:80:90"), "at byte 5, " + odd);
    EXPECT_EQ(fault("[::1]80"), "at byte 6, " + odd);
    EXPECT_EQ(fault("a:65536"), "at byte 3, there must be a port from 0 to 65535 or the name of a service.");
    EXPECT_EQ(fault("a:"), "at byte 3, there must be a port from 0 to 65535 or the name of a service.");
    EXPECT_EQ(fault("a:99999999999999999999"),
              "at byte 3, there must be a port from 0 to 65535 or the name of a service.");
    for (const char* const text : {"::1:80", "::1", "fe80::1%1", "1:2:3:4:5:6:7:8"})
        EXPECT_EQ(fault(text), "at byte 1, there is an IPv6 address without brackets; write [::1]:80.");
    for (const char* const text : {"[]:80", "[::1.2.3.4.5]:80", "[1.2.3.4]:80", "[::1%]:80", "[:::]:80", "[1::2::3]:80",
                                   "[1:2:3:4:5:6:7:8:9]:80", "[1:2:3:4:5:6:7]:80", "[12345::]:80", "[1:]:80"})
        EXPECT_EQ(fault(text), "at byte 2, there is no IPv6 address in brackets.") << text;
    EXPECT_EQ(fault("[::1"), "at byte 1, there is no IPv6 address in brackets.");
    for (const char* const text : {"127.1:80", "1:80", "0x7f.1:80", "1.2.3.4.5:80", "256.1.1.1:80", "01.2.3.4:80",
                                   "a.1:80", "a.1.:80", "80", "a.0x:80"})
        EXPECT_EQ(fault(text, {.port = 1}), "at byte 1, there is a host that ends in a number but is not an IPv4 "
                                            "address; write a port alone as :80.");
    EXPECT_EQ(fault(".:80"), "at byte 1, there is an empty part of a host's name, or one with more than 63 bytes.");
    EXPECT_EQ(fault("a..b:80"), "at byte 3, there is an empty part of a host's name, or one with more than 63 bytes.");
    EXPECT_EQ(fault(std::string(64, 'a') + ":80"),
              "at byte 1, there is an empty part of a host's name, or one with more than 63 bytes.");
    EXPECT_EQ(fault("unix:"), "at byte 6, there must be a path or a name.");
    EXPECT_EQ(fault("pipe:"), "at byte 6, there must be a path or a name.");
    EXPECT_EQ(fault("pipe:a\\b"), "at byte 7, " + odd);
    EXPECT_EQ(fault("udp://a:1"), "it begins with 'udp://', which is none of tcp://, unix: and pipe:.");
    EXPECT_EQ(fault("a:no-such-service"),
              "at byte 3, this host knows no service of TCP with the name 'no-such-service'.");
    EXPECT_EQ(fault("[fe80::1%no such]:80"), "at byte 10, this host has no interface 'no such'.");
}

TEST(service_descriptor, parts_have_a_greatest_length) {
    const auto many = [](const char* text, int count) {
        std::string all;
        for (int i = 0; i < count; ++i)
            all.append(text);
        return all;
    };
    EXPECT_EQ(again((many("ab.", 84) + "a:80").c_str()), many("ab.", 84) + "a:80");
    EXPECT_EQ(fault(many("ab.", 84) + "ab:80"), "the part that begins at byte 1 has more than 253 bytes.");
    EXPECT_EQ(fault("a:" + many("s", 64)), "the part that begins at byte 3 has more than 63 bytes.");
    EXPECT_EQ(again(("unix:" + many("p", 107)).c_str()), "unix:" + many("p", 107));
    EXPECT_EQ(fault("unix:" + many("p", 108)), "the part that begins at byte 6 has more than 107 bytes.");
    EXPECT_EQ(again(("pipe:" + many("p", 247)).c_str()), "pipe:" + many("p", 247));
    EXPECT_EQ(fault("pipe:" + many("p", 248)), "the part that begins at byte 6 has more than 247 bytes.");
}

TEST(service_descriptor, a_null_text_is_empty) {
    qorServiceDescriptor service;
    EXPECT_FALSE(qorParseServiceDescriptor(nullptr, service));
    EXPECT_EQ(last_error(), "'' does not name a service: at byte 1, there is nothing.");
}

} // namespace
