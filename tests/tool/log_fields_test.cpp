// Words and numbers of a log line, compared with plain loops and the C library.
#include "heap/log/log_fields.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace qor::heap;

// Text as ReadLines returns it: followed by padding.
class run {
public:
    explicit run(const std::string& text)
        : m_text(text + std::string(qorReadLinesPadding, '\0')), m_size(text.size()) {}
    const char* begin() const { return m_text.data(); }
    const char* end() const { return m_text.data() + m_size; }

private:
    std::string m_text;
    std::size_t m_size;
};

bool plain_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

std::vector<std::string> plain_words(const std::string& line) {
    std::vector<std::string> words;
    std::string word;
    for (const char c : line + ' ') {
        if (!plain_space(c)) {
            word += c;
        } else if (!word.empty()) {
            words.push_back(word);
            word.clear();
        }
    }
    return words;
}

std::vector<std::string> words_of(const std::string& line) {
    const run text(line + '\n');
    const char* next = text.begin();
    std::string_view rest;
    EXPECT_TRUE(log_fields::next_line(next, text.end(), rest));
    std::vector<std::string> words;
    for (std::string_view word; !(word = log_fields::next_word(rest)).empty();)
        words.emplace_back(word);
    return words;
}

TEST(log_fields, words_are_those_of_a_plain_loop) {
    std::mt19937 random(1);
    const std::string letters("ab\0 \t\r\v\f@\x08\x0e\x1f\x21\x80\x89\x8d\xa0\xff", 19);
    for (int round = 0; round < 20000; ++round) {
        std::string line;
        for (unsigned length = random() % 80; length != 0; --length)
            line += random() % 3 == 0 ? letters[random() % letters.size()] : 'x';
        ASSERT_EQ(words_of(line), plain_words(line)) << ::testing::PrintToString(line);
    }
}

TEST(log_fields, lines_lose_white_space_at_both_ends) {
    const run text(" \t a b \r\n\n\r\n  \nlast\v\n");
    const char* next = text.begin();
    std::vector<std::string> lines;
    for (std::string_view line; log_fields::next_line(next, text.end(), line);)
        lines.emplace_back(line);
    EXPECT_EQ(lines, (std::vector<std::string>{"a b", "", "", "", "last"}));
}

// In a log, a word is followed by white space; the C library stops there too.
template <class NUMBER, class PLAIN>
void compare_numbers(NUMBER number, PLAIN plain) {
    std::vector<std::string> words{"0",
                                   "0x",
                                   "0X",
                                   "0x0",
                                   "-",
                                   "+",
                                   "-0x",
                                   "0xg",
                                   "x",
                                   "00",
                                   "08",
                                   "0b1",
                                   "-1",
                                   "+7",
                                   "--1",
                                   "0x-1",
                                   "0x 1",
                                   "1f3a0",
                                   "0x1f3a0",
                                   "0X1F3A0zz",
                                   "ffffffffffffffff",
                                   "0xffffffffffffffff",
                                   "10000000000000000",
                                   "0x10000000000000000",
                                   "18446744073709551615",
                                   "18446744073709551616",
                                   "-18446744073709551615",
                                   "9223372036854775807",
                                   "9223372036854775808",
                                   "-9223372036854775808",
                                   "-9223372036854775809",
                                   "01777777777777777777777",
                                   "00000000000000000000000000ff",
                                   "0x00000000000000000000000000ff",
                                   "12junk",
                                   "(nil)"};
    std::mt19937 random(2);
    const std::string letters = "0123456789abcdefABCDEFxX+-gz";
    for (int round = 0; round < 50000; ++round) {
        std::string word;
        for (unsigned length = 1 + random() % 24; length != 0; --length)
            word += letters[random() % letters.size()];
        words.push_back(word);
    }
    for (const std::string& word : words) {
        const run text(word + " 99\n");
        ASSERT_EQ(number(std::string_view(text.begin(), word.size())), plain(word.c_str())) << word;
    }
}

TEST(log_fields, hexadecimal_numbers_are_the_c_librarys) {
    compare_numbers(log_fields::hexadecimal,
                    [](const char* text) -> uint64 { return std::strtoull(text, nullptr, 16); });
}

TEST(log_fields, unsigned_numbers_are_the_c_librarys) {
    compare_numbers(log_fields::unsigned_number,
                    [](const char* text) -> uint64 { return std::strtoull(text, nullptr, 0); });
}

TEST(log_fields, signed_numbers_are_the_c_librarys) {
    compare_numbers(log_fields::signed_number,
                    [](const char* text) -> int64 { return std::strtoll(text, nullptr, 0); });
}

TEST(log_fields, a_nul_ends_a_number) {
    const run text(std::string("1f\0003 \n", 6));
    EXPECT_EQ(log_fields::hexadecimal(std::string_view(text.begin(), 4)), 0x1fu);
}

} // namespace
