#include "string_support.h"

#include <gtest/gtest.h>

using namespace std::string_literals;
using words = std::vector<std::string>;

namespace {

words tokenised(const std::string& text) {
    qorStringArray out;
    out.Append("left over");
    EXPECT_TRUE(made_of(text).Tokenise_WS(out));
    return list(out);
}

words split(const std::string& text, char byte) {
    qorStringArray out;
    out.Append("left over");
    EXPECT_TRUE(made_of(text).TokeniseAtByte(byte, out));
    return list(out);
}

TEST(tokens, words) {
    EXPECT_EQ(tokenised(""), words{});
    EXPECT_EQ(tokenised(" \t\n\v\f\r"), words{});
    EXPECT_EQ(tokenised("one"), words{"one"});
    EXPECT_EQ(tokenised("  one\t\ttwo\r\n"), (words{"one", "two"}));
    EXPECT_EQ(tokenised("a\0b c\xa0\x85"s), (words{"a\0b"s, "c\xa0\x85"})) << "other bytes are no white space";
}

TEST(tokens, fields) {
    EXPECT_EQ(split("", ','), words{});
    EXPECT_EQ(split(",", ','), (words{"", ""}));
    EXPECT_EQ(split("a", ','), words{"a"});
    EXPECT_EQ(split("a,,b,", ','), (words{"a", "", "b", ""}));
    EXPECT_EQ(split("a\0b"s, '\0'), (words{"a", "b"}));
}

TEST(tokens, the_string_may_be_an_element_of_the_result) {
    qorStringArray array;
    array.Append("x y z");
    array.Append("a b");
    EXPECT_TRUE(array.m_data.elements[1].Tokenise_WS(array));
    EXPECT_EQ(list(array), (words{"a", "b"}));
    array.Append("p,q,r");
    EXPECT_TRUE(array.m_data.elements[2].TokeniseAtByte(',', array));
    EXPECT_EQ(list(array), (words{"p", "q", "r"}));
}

// A reader that splits line after line with one string and one array stops allocating.
TEST(tokens, the_elements_storage_is_reused) {
    qorString line("a longer first word and some more words to have slots for");
    qorStringArray array;
    line.Tokenise_WS(array);
    const qorString* const elements = array.m_data.elements;
    const char* const first = array[0];
    const char* const ninth = array[8];
    line = "x";
    line.Tokenise_WS(array);
    EXPECT_EQ(list(array), words{"x"});
    line = "1 2 3 4 5 6 7 8 9";
    line.Tokenise_WS(array);
    EXPECT_EQ(list(array), (words{"1", "2", "3", "4", "5", "6", "7", "8", "9"}));
    EXPECT_EQ(array.m_data.elements, elements);
    EXPECT_EQ(array[0], first);
    EXPECT_EQ(array[8], ninth);
}

TEST(tokens, split_at_the_first_separator) {
    const qorString text("name=a=b");
    qorString left, right;
    EXPECT_TRUE(text.SplitAtByte('=', left, right));
    EXPECT_EQ(bytes(left), "name");
    EXPECT_EQ(bytes(right), "a=b");
    EXPECT_FALSE(text.SplitAtByte(':', left, right));
    EXPECT_EQ(bytes(left), "name=a=b");
    EXPECT_EQ(bytes(right), "");
    EXPECT_TRUE(qorString("=").SplitAtByte('=', left, right));
    EXPECT_EQ(bytes(left) + "|" + bytes(right), "|");
    EXPECT_FALSE(qorString().SplitAtByte('=', left, right));
    EXPECT_EQ(bytes(left) + "|" + bytes(right), "|");
}

TEST(tokens, a_part_may_be_the_string_itself) {
    qorString other;
    qorString text("left=and a longer right");
    EXPECT_TRUE(text.SplitAtByte('=', text, other));
    EXPECT_EQ(bytes(text) + "|" + bytes(other), "left|and a longer right");
    EXPECT_FALSE(text.SplitAtByte('=', text, other));
    EXPECT_EQ(bytes(text) + "|" + bytes(other), "left|");

    text = "left=and a longer right";
    EXPECT_TRUE(text.SplitAtByte('=', other, text));
    EXPECT_EQ(bytes(other) + "|" + bytes(text), "left|and a longer right");
    EXPECT_FALSE(text.SplitAtByte('=', other, text));
    EXPECT_EQ(bytes(other) + "|" + bytes(text), "and a longer right|");
}

TEST(tokens, first_word) {
    qorString text("  one \t two\n");
    qorString token;
    EXPECT_TRUE(text.ExtractFirstToken_WS(token));
    EXPECT_EQ(bytes(token) + "|" + bytes(text), "one|two\n");
    EXPECT_TRUE(text.ExtractFirstToken_WS(token));
    EXPECT_EQ(bytes(token) + "|" + bytes(text), "two|");
    EXPECT_FALSE(text.ExtractFirstToken_WS(token));
    EXPECT_EQ(bytes(token) + "|" + bytes(text), "|");

    token = "left over";
    text = " \t";
    EXPECT_FALSE(text.ExtractFirstToken_WS(token));
    EXPECT_EQ(bytes(token) + "|" + bytes(text), "|");

    text = " one two";
    EXPECT_TRUE(text.ExtractFirstToken_WS(text));
    EXPECT_EQ(bytes(text), "one");
}

words plain_words(const std::string& text) {
    words all;
    std::string word;
    for (const char c : text + ' ') {
        const bool blank = c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
        if (!blank)
            word += c;
        else if (!word.empty())
            all.push_back(std::exchange(word, ""));
    }
    return all;
}

words plain_fields(const std::string& text, char byte) {
    words all;
    if (text.empty())
        return all;
    all.emplace_back();
    for (const char c : text) {
        if (c == byte)
            all.emplace_back();
        else
            all.back() += c;
    }
    return all;
}

TEST(tokens, agree_with_the_plain_loop) {
    generator random(24);
    qorStringArray out; // one array for all: earlier contents must not show
    qorString rest, token;
    for (int i = 0; i < 20000; ++i) {
        const std::string plain = random.from("ab, \t\n\v\f\r\0\x85\xa0\xff"s, 40);
        const qorString text = made_of(plain);
        const words expected = plain_words(plain);
        ASSERT_TRUE(text.Tokenise_WS(out));
        ASSERT_EQ(list(out), expected);
        ASSERT_TRUE(text.TokeniseAtByte(',', out));
        ASSERT_EQ(list(out), plain_fields(plain, ','));

        words taken;
        rest = text;
        while (rest.ExtractFirstToken_WS(token))
            taken.push_back(bytes(token));
        ASSERT_EQ(taken, expected);
        ASSERT_TRUE(rest.IsEmpty());
    }
}

} // namespace
