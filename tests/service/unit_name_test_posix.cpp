// Names of units, beside what systemd accepts.
#include "unit_name.h"

#include <gtest/gtest.h>

namespace {

std::string completed(std::string_view name) {
    systemd::unit_name out;
    return systemd::complete(name, out) ? out.text : "";
}

} // namespace

TEST(unit_name, is_completed) {
    EXPECT_EQ(completed("nginx"), "nginx.service");
    EXPECT_EQ(completed("nginx.service"), "nginx.service");
    EXPECT_EQ(completed("a.b"), "a.b.service");
    EXPECT_EQ(completed("a.service.b"), "a.service.b.service");
    EXPECT_EQ(completed("cups.socket"), "cups.socket");
    EXPECT_EQ(completed("dev-sda\\x2d1.device"), "dev-sda\\x2d1.device");
    EXPECT_EQ(completed("getty@tty1"), "getty@tty1.service");
    EXPECT_EQ(completed("a@b@c"), "a@b@c.service");
    for (const char* const kind :
         {"service", "socket", "target", "device", "mount", "automount", "swap", "timer", "path", "slice", "scope"})
        EXPECT_EQ(completed(std::string("x.").append(kind)), std::string("x.").append(kind));
}

TEST(unit_name, is_refused) {
    for (const char* const wrong :
         {"",         ".service", "@",   "@.service", "@a",   "a b", "a/b", "/a",  "a\n",  "\x01",
          "\xc3\xa4", "a+b",      "a=b", "a*",        "a\"b", "a'b", "a,b", "a;b", "${a}", "a%i"})
        EXPECT_EQ(completed(wrong), "") << wrong;
    EXPECT_EQ(completed(std::string_view("a\0b", 3)), "");
    EXPECT_EQ(completed(std::string(247, 'a')).size(), 255u);
    EXPECT_EQ(completed(std::string(248, 'a')), "");
    EXPECT_EQ(completed(std::string(247, 'a').append(".service")).size(), 255u);
    EXPECT_EQ(completed(std::string(100'000, 'a')), "");
}

TEST(unit_name, of_a_template) {
    const auto is_template = [](std::string_view name) {
        systemd::unit_name out;
        EXPECT_TRUE(systemd::complete(name, out)) << name;
        return out.is_template;
    };
    EXPECT_TRUE(is_template("getty@"));
    EXPECT_TRUE(is_template("getty@.service"));
    EXPECT_TRUE(is_template("a@.socket"));
    EXPECT_FALSE(is_template("getty@a"));
    EXPECT_FALSE(is_template("a@b@"));
    EXPECT_FALSE(is_template("getty"));
}

TEST(unit_name, of_a_service) {
    const auto is_service = [](std::string_view name) {
        systemd::unit_name out;
        EXPECT_TRUE(systemd::complete(name, out)) << name;
        return out.is_service;
    };
    EXPECT_TRUE(is_service("a"));
    EXPECT_TRUE(is_service("a.service"));
    EXPECT_TRUE(is_service("a@b"));
    EXPECT_FALSE(is_service("a.socket"));
    EXPECT_TRUE(is_service("a.socket.service"));
}
