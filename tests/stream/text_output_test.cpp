// Text on its way to a terminal.
#include "stream/text_output.h"

#include "string/unicode.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

std::string visible(std::string_view text) {
    qor::string::working_memory memory;
    return std::string(qor::stream::visible(text, memory));
}

TEST(visible_text, stays_what_it_is) {
    for (const char* const text :
         {"", "plain text", "a\tb\nc\n", "~", "J\u00fcrgen", "\u65e5\u672c\u8a9e", "\U0001f600", "\u00a0 beside C1",
          "\u05e2\u05d1\u05e8\u200e\u200f\u061c", "\u2029\u2065\u206a", "\\x1b"})
        EXPECT_EQ(visible(text), text);
}

TEST(visible_text, shows_control_characters) {
    EXPECT_EQ(visible("\x1b[31m"), "\\x1b[31m");
    EXPECT_EQ(visible(std::string_view("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(visible("\r\a\b\x7f"), "\\x0d\\x07\\x08\\x7f");
    EXPECT_EQ(visible("\u0080\u009b\u009f"), "\\xc2\\x80\\xc2\\x9b\\xc2\\x9f");
}

TEST(visible_text, shows_what_turns_text_round) {
    EXPECT_EQ(visible("\u202agnp\u202e"), "\\xe2\\x80\\xaagnp\\xe2\\x80\\xae");
    EXPECT_EQ(visible("\u2066a\u2069"), "\\xe2\\x81\\xa6a\\xe2\\x81\\xa9");
}

TEST(visible_text, shows_what_is_no_utf8) {
    EXPECT_EQ(visible("\x9b"
                      "31m"),
              "\\x9b31m");
    EXPECT_EQ(visible("J\xfcrgen"), "J\\xfcrgen");
    EXPECT_EQ(visible("\xc2"), "\\xc2");
    EXPECT_EQ(visible("\xe2\x80"), "\\xe2\\x80");
    EXPECT_EQ(visible("\xed\xa0\x80"), "\\xed\\xa0\\x80");
    EXPECT_EQ(visible("\xc0\x9b"), "\\xc0\\x9b");
}

TEST(visible_text, has_nothing_that_steers_whatever_the_bytes) {
    std::mt19937 generator(4711);
    std::uniform_int_distribution<int> any(0, 255);
    for (int round = 0; round < 20'000; ++round) {
        std::string text(static_cast<std::size_t>(any(generator)), '\0');
        for (char& c : text)
            c = static_cast<char>(round % 2 == 0 ? any(generator)
                                                 : "\xc2\x9b\xe2\x80\xae\x1b"
                                                   "a\n"[any(generator) % 8]);
        const std::string shown = visible(text);
        for (std::string_view rest = shown; !rest.empty();) {
            const qor::string::decoded next = qor::string::decode(rest);
            ASSERT_TRUE(next.valid);
            ASSERT_TRUE(next.character >= 0x20 || next.character == '\n' || next.character == '\t');
            ASSERT_FALSE(next.character >= 0x7f && next.character <= 0x9f);
            rest.remove_prefix(next.size);
        }
        // Visible text is not escaped again, even if it comes in other pieces.
        ASSERT_EQ(visible(shown), shown);
    }
}

TEST(visible_text, of_two_pieces_has_nothing_that_steers_where_they_meet) {
    for (int first = 0x80; first <= 0xff; ++first)
        for (int second = 0x80; second <= 0xff; ++second) {
            const std::string shown =
                visible(std::string(1, static_cast<char>(first))) + visible(std::string(1, static_cast<char>(second)));
            ASSERT_EQ(visible(shown), shown);
        }
}

} // namespace
