// The form of entries in lines.
#include "log/line_text.h"

#include <gtest/gtest.h>

namespace {

std::string shown(std::string_view text, std::string_view special = {}) {
    std::string line;
    qor::log::append_line_text(line, text, special);
    return line;
}

} // namespace

TEST(log_line_text, stays_within_its_line) {
    EXPECT_EQ(shown("one\ntwo\r\n\tthree"), "one\\ntwo\\r\\n\\tthree");
    EXPECT_EQ(shown(std::string_view("a\0b\x1b[31m\x7f", 9)), "a\\x00b\\x1b[31m\\x7f");
    EXPECT_EQ(shown("\xe2\x80\xa8|\xe2\x80\xa9|\xc2\x85"), "\\xe2\\x80\\xa8|\\xe2\\x80\\xa9|\\xc2\\x85");
    EXPECT_EQ(shown("\xe2\x80\xae"), "\\xe2\\x80\\xae");
}

TEST(log_line_text, shows_every_character_of_every_language) {
    EXPECT_EQ(shown("Grün, 日本, \xf0\x9f\x99\x82, a\\b \"c\""), "Grün, 日本, \xf0\x9f\x99\x82, a\\b \"c\"");
}

TEST(log_line_text, shows_bytes_that_are_no_characters) {
    EXPECT_EQ(shown("a\xff\xc3(\xed\xa0\x80"), "a\\xff\\xc3(\\xed\\xa0\\x80");
    EXPECT_EQ(shown("\xf0\x9f\x99"), "\\xf0\\x9f\\x99");
}

TEST(log_line_text, escapes_what_its_place_needs) { EXPECT_EQ(shown("my app", " "), "my\\x20app"); }

TEST(log_line_text, is_found_to_need_nothing) {
    EXPECT_TRUE(qor::log::is_line_text(""));
    EXPECT_TRUE(qor::log::is_line_text("all of ' ' to '~'"));
    EXPECT_TRUE(qor::log::is_line_word(""));
    for (int byte = 0; byte < 256; ++byte)
        for (const std::size_t at : {0, 6, 7, 8, 19}) {
            std::string text(20, 'x');
            text[at] = static_cast<char>(byte);
            EXPECT_EQ(qor::log::is_line_text(text), byte >= ' ' && byte <= '~') << byte;
            EXPECT_EQ(qor::log::is_line_word(text), byte > ' ' && byte <= '~') << byte;
        }
}

TEST(log_line_text, has_fields_that_can_be_told_apart) {
    std::string line;
    qor::log::append_fields(line, {{"ONE", "plain"}, {"TWO", "a \"b\" c:\\d\n\\"}, {"THREE", ""}});
    EXPECT_EQ(line, R"( ONE="plain" TWO="a \"b\" c:\\d\n\\" THREE="")");
}

TEST(log_line_text, is_cut_between_characters) {
    EXPECT_EQ(qor::log::cut_text("abc", 3), "abc");
    EXPECT_EQ(qor::log::cut_text("abcd", 3), "abc");
    EXPECT_EQ(qor::log::cut_text("ab日", 4), "ab");
    EXPECT_EQ(qor::log::cut_text("日", 2), "");
}

TEST(log_line_text, names_files_by_their_last_part) {
    EXPECT_EQ(qor::log::base_name("/some/where/a.cpp"), "a.cpp");
    EXPECT_EQ(qor::log::base_name("c:\\where\\a.cpp"), "a.cpp");
    EXPECT_EQ(qor::log::base_name("a.cpp"), "a.cpp");
    EXPECT_EQ(qor::log::base_name(nullptr), "");
}
