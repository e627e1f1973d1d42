#include "string_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <strings.h>

using namespace std::string_literals;

namespace {

int sign(int value) { return (value > 0) - (value < 0); }

TEST(string_compare, is_by_unsigned_bytes) {
    EXPECT_EQ(qorString("abc").Compare("abc"), 0);
    EXPECT_LT(qorString("abc").Compare("abd"), 0);
    EXPECT_GT(qorString("abc").Compare("ab"), 0);
    EXPECT_LT(qorString("ab").Compare("abc"), 0);
    EXPECT_GT(qorString("\x80").Compare("\x7f"), 0);
    EXPECT_LT(qorString("A").Compare("a"), 0);
    EXPECT_LT(qorString().Compare("a"), 0);
    EXPECT_EQ(qorString().Compare(""), 0);
}

TEST(string_compare, a_nul_in_the_string_is_a_byte) {
    const qorString text = made_of("a\0b"s);
    EXPECT_GT(text.Compare("a"), 0);
    EXPECT_EQ(text.CompareN("a", 1), 0);
    EXPECT_GT(text.CompareN("a", 3), 0);
    EXPECT_GT(text.CompareNoCase("A"), 0);
}

TEST(string_compare, the_first_bytes) {
    EXPECT_EQ(qorString("abcx").CompareN("abcy", 3), 0);
    EXPECT_LT(qorString("abcx").CompareN("abcy", 4), 0);
    EXPECT_EQ(qorString("abc").CompareN("abc", 99), 0);
    EXPECT_LT(qorString("ab").CompareN("abc", 3), 0);
    EXPECT_EQ(qorString("abc").CompareN("xyz", 0), 0);
    // No more than the length is read: the other text need not be terminated.
    const auto end = std::make_unique<char[]>(3);
    std::memcpy(end.get(), "abc", 3);
    EXPECT_EQ(qorString("abcd").CompareN(end.get(), 3), 0);
}

// On some systems the C library's strcasecmp treats other bytes as letters.
std::string lower_case(std::string text) {
    for (char& c : text)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return text;
}

TEST(string_compare, agrees_with_the_c_library) {
    generator random(21);
    const std::string alphabet = "abAB_[\x80\xff";
    for (int i = 0; i < 20000; ++i) {
        const std::string left = random.from(alphabet, 8);
        const std::string right = random.from(alphabet, 8);
        const uint32 count = random.below(9);
        const qorString text = made_of(left);
        ASSERT_EQ(sign(text.Compare(right.c_str())), sign(std::strcmp(left.c_str(), right.c_str())));
        ASSERT_EQ(sign(text.CompareN(right.c_str(), count)), sign(std::strncmp(left.c_str(), right.c_str(), count)));
        ASSERT_EQ(sign(text.CompareNoCase(right.c_str())),
                  sign(std::strcmp(lower_case(left).c_str(), lower_case(right).c_str())));
    }
}

TEST(string_search, bytes) {
    const qorString text = made_of("a-b-\0-"s);
    EXPECT_EQ(text.FindByte('-'), 1);
    EXPECT_EQ(text.FindByte('-', 1), 1);
    EXPECT_EQ(text.FindByte('-', 2), 3);
    EXPECT_EQ(text.FindByte('\0'), 4);
    EXPECT_EQ(text.FindByte('x'), -1);
    EXPECT_EQ(text.FindByte('-', 6), -1);
    EXPECT_EQ(text.FindByte('-', 0xffffffff), -1);
    EXPECT_EQ(text.ReverseFindByte('-'), 5);
    EXPECT_EQ(text.ReverseFindByte('-', 5), 5);
    EXPECT_EQ(text.ReverseFindByte('-', 4), 3);
    EXPECT_EQ(text.ReverseFindByte('-', 0), -1);
    EXPECT_EQ(text.ReverseFindByte('a', 0), 0);
    EXPECT_EQ(text.ReverseFindByte('-', 99), 5);
    EXPECT_EQ(qorString().FindByte('\0'), -1);
    EXPECT_EQ(qorString().ReverseFindByte('\0'), -1);
}

TEST(string_search, characters) {
    const qorString text("a\u00e9\u20ac\U0001f600\u00e9");
    EXPECT_EQ(text.FindChar('a'), 0);
    EXPECT_EQ(text.FindChar(0xe9), 1);
    EXPECT_EQ(text.FindChar(0xe9, 2), 10);
    EXPECT_EQ(text.FindChar(0x20ac), 3);
    EXPECT_EQ(text.FindChar(0x1f600), 6);
    EXPECT_EQ(text.ReverseFindChar(0xe9), 10);
    EXPECT_EQ(text.ReverseFindChar(0xe9, 9), 1);
    EXPECT_EQ(text.ReverseFindChar(0xe9, 0), -1);
    EXPECT_EQ(text.FindChar(0xa9), -1) << "a byte inside a character is no character";
    for (const uint32 none : {0xd800u, 0xdfffu, 0x110000u, 0xffffffffu}) {
        EXPECT_EQ(qorString("\xed\xa0\x80\xf4\x90\x80\x80").FindChar(none), -1);
        EXPECT_EQ(text.ReverseFindChar(none), -1);
    }
    EXPECT_EQ(made_of("\xe2\xc3\xa9"s).FindChar(0xe9), 1) << "behind a fault";
    EXPECT_EQ(made_of("a\0"s).FindChar(0), 1);
}

TEST(string_search, an_empty_text_is_found_at_the_start) {
    const qorString text("abc");
    EXPECT_EQ(text.FindString(""), 0);
    EXPECT_EQ(text.FindString("", 2), 2);
    EXPECT_EQ(text.FindString("", 3), 3);
    EXPECT_EQ(text.FindString("", 4), -1);
    EXPECT_EQ(text.ReverseFindString(""), 3);
    EXPECT_EQ(text.ReverseFindString("", 1), 1);
    EXPECT_EQ(text.ReverseFindString("", 99), 3);
    EXPECT_EQ(qorString().FindString(""), 0);
}

TEST(string_search, texts_in_the_string_itself) {
    const qorString text("abcabc");
    EXPECT_EQ(text.FindString(text.Text() + 3), 0);
    EXPECT_EQ(text.ReverseFindString(text.Text() + 3), 3);
    EXPECT_EQ(text.FindString(text), 0);
}

TEST(string_search, agrees_with_the_plain_loop) {
    generator random(22);
    for (int i = 0; i < 20000; ++i) {
        const std::string plain = random.from("ab\0"s, 14);
        const std::string sought = random.from("ab", 4);
        const int32 size = static_cast<int32>(plain.size());
        const int32 start = static_cast<int32>(random.below(16)) - 1;
        const auto matches = [&](int32 at) {
            return plain.compare(static_cast<std::size_t>(at), sought.size(), sought) == 0;
        };

        int32 first = -1;
        for (int32 at = size; at >= start && at >= 0; --at)
            if (matches(at))
                first = at;
        int32 last = -1;
        for (int32 at = 0; at <= size && (start < 0 || at <= start); ++at)
            if (matches(at))
                last = at;

        const qorString text = made_of(plain);
        if (start >= 0) {
            ASSERT_EQ(text.FindString(sought.c_str(), static_cast<uint32>(start)), first);
        }
        ASSERT_EQ(text.ReverseFindString(sought.c_str(), start), last);
    }
}

} // namespace
