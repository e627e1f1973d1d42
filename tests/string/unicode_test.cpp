#include "converter.h"
#include "string_support.h"

#include "string/unicode.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace std::string_literals;

namespace {

constexpr uint32 last_character = 0x10ffff;

template <class UNIT>
std::basic_string<UNIT> units_of(const qorDataBlock& block) {
    std::basic_string<UNIT> units(block.Size() / sizeof(UNIT), UNIT{});
    std::memcpy(units.data(), block.ptr(), block.Size());
    EXPECT_EQ(units.back(), UNIT{}) << "the final zero";
    units.pop_back();
    return units;
}

std::u16string ucs2(const std::string& text, bool* valid = nullptr) {
    qorDataBlock block;
    const bool result = made_of(text).GetAsUCS2(block);
    if (valid != nullptr)
        *valid = result;
    return units_of<char16_t>(block);
}

std::u32string ucs4(const std::string& text, bool* valid = nullptr) {
    qorDataBlock block;
    const bool result = made_of(text).GetAsUCS4(block);
    if (valid != nullptr)
        *valid = result;
    return units_of<char32_t>(block);
}

std::string from_ucs2(const std::u16string& text, bool* valid = nullptr) {
    qorString made("left over");
    const std::vector<uint16> units(text.begin(), text.end());
    const bool result = made.SetUCS2(units.data(), static_cast<int32>(units.size()));
    if (valid != nullptr)
        *valid = result;
    return bytes(made);
}

std::string from_ucs4(const std::u32string& text, bool* valid = nullptr) {
    qorString made("left over");
    const std::vector<uint32> units(text.begin(), text.end());
    const bool result = made.SetUCS4(units.data(), static_cast<int32>(units.size()));
    if (valid != nullptr)
        *valid = result;
    return bytes(made);
}

template <class UNIT>
std::string raw(const std::basic_string<UNIT>& text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(UNIT)};
}

TEST(unicode, every_character_there_and_back) {
    for (uint32 first = 0; first <= last_character; first += 0x100) {
        std::u32string characters;
        for (uint32 c = first; c < first + 0x100; ++c)
            if (c < 0xd800 || c > 0xdfff)
                characters += static_cast<char32_t>(c);
        if (characters.empty())
            continue;
        std::string utf8, utf16;
        ASSERT_TRUE(qor::test::utf32_to_utf8(raw(characters), utf8));
        ASSERT_TRUE(qor::test::utf32_to_utf16(raw(characters), utf16));

        bool valid = false;
        ASSERT_EQ(ucs4(utf8, &valid), characters) << first;
        ASSERT_TRUE(valid);
        ASSERT_EQ(raw(ucs2(utf8, &valid)), utf16) << first;
        ASSERT_TRUE(valid);
        ASSERT_EQ(from_ucs4(characters, &valid), utf8) << first;
        ASSERT_TRUE(valid);
        ASSERT_EQ(from_ucs2(ucs2(utf8), &valid), utf8) << first;
        ASSERT_TRUE(valid);
    }
}

TEST(unicode, what_is_no_character_is_replaced) {
    bool valid = true;
    for (const char32_t none : {0xd800u, 0xdbffu, 0xdc00u, 0xdfffu, 0x110000u, 0xffffffffu}) {
        EXPECT_EQ(from_ucs4(U"a"s + none + U"b", &valid), "a\ufffdb");
        EXPECT_FALSE(valid);
        char bytes[4];
        EXPECT_EQ(qor::string::encode(none, bytes), 0u);
    }
    const char16_t high = 0xd83d, low = 0xde00;
    const struct {
        std::u16string from;
        const char* to;
    } broken_pairs[] = {
        {{high}, "\ufffd"},
        {{low}, "\ufffd"},
        {{u'a', high, u'b'}, "a\ufffdb"},
        {{low, high}, "\ufffd\ufffd"},
        {{low, low}, "\ufffd\ufffd"},
        {{high, high, low}, "\ufffd\U0001f600"},
        {{high, low, low}, "\U0001f600\ufffd"},
    };
    for (const auto& [from, to] : broken_pairs) {
        valid = true;
        EXPECT_EQ(from_ucs2(from, &valid), to);
        EXPECT_FALSE(valid);
    }
}

// The examples of the Unicode standard's chapter on replacement, and the limits of every range.
TEST(unicode, faults_take_the_longest_prefix_of_a_character) {
    const std::u32string r(1, 0xfffd);
    const struct {
        std::string from;
        std::u32string to;
    } samples[] = {
        {"\xc0\xaf\xe0\x80\xbf\xf0\x81\x82\x41", r + r + r + r + r + r + r + r + U"A"},
        {"\xed\xa0\x80\xed\xbf\xbf\xed\xaf\x41", r + r + r + r + r + r + r + r + U"A"},
        {"\xf4\x91\x92\x93\xff\x41\x80\xbf\x42", r + r + r + r + r + U"A" + r + r + U"B"},
        {"\xe1\x80\xe2\xf0\x91\x92\xf1\xbf\x41", r + r + r + r + U"A"},
        {"\x61\xf1\x80\x80\xe1\x80\xc2\x62\x80\x63\x80\xbf\x64", U"a" + r + r + r + U"b" + r + U"c" + r + r + U"d"},
        {"\xc2", r},
        {"\xe0\xa0", r},
        {"\xe0\x9f", r + r},
        {"\xed\x9f", r},
        {"\xed\xa0", r + r},
        {"\xf0\x90\x80", r},
        {"\xf0\x8f\x80", r + r + r},
        {"\xf4\x8f\xbf", r},
        {"\xf4\x90\x80", r + r + r},
        {"\xf5\xc1\xfe", r + r + r},
    };
    for (const auto& [from, to] : samples) {
        bool valid = true;
        EXPECT_EQ(ucs4(from, &valid), to);
        EXPECT_FALSE(valid);
    }
}

// Bytes that are almost valid, so that every branch of a decoder is reached.
std::string nearly_utf8(generator& random, uint32 length_limit) {
    static const std::string interesting =
        "a\0\x7f\x80\x8f\x90\x9f\xa0\xbf\xc0\xc1\xc2\xdf\xe0\xe1\xec\xed\xee\xef\xf0\xf1\xf3\xf4\xf5\xff"s;
    return random.from(interesting, length_limit);
}

TEST(unicode, validity_is_the_systems) {
    generator random(25);
    uint32 valid_ones = 0;
    for (int i = 0; i < 200000; ++i) {
        const std::string text = nearly_utf8(random, 6);
        std::string expected;
        const bool valid_there = qor::test::utf8_to_utf32(text, expected);
        bool valid = !valid_there;
        const std::u32string characters = ucs4(text, &valid);
        ASSERT_EQ(valid, valid_there) << testing::PrintToString(text);
        if (valid) {
            ASSERT_EQ(raw(characters), expected);
            valid_ones += text.size() > 1;
        }
    }
    EXPECT_GT(valid_ones, 1000u) << "the generator reaches both verdicts";
}

TEST(unicode, a_faulty_text_converted_twice_stays_as_it_is) {
    generator random(26);
    for (int i = 0; i < 20000; ++i) {
        const std::string text = nearly_utf8(random, 20);
        const std::string once = from_ucs4(ucs4(text));
        bool valid = false;
        ASSERT_EQ(from_ucs2(ucs2(text)), once);
        ASSERT_EQ(from_ucs4(ucs4(once, &valid)), once);
        ASSERT_TRUE(valid);
    }
}

TEST(unicode, lengths_and_nuls) {
    const uint16 two[] = {'a', 0, 'b', 0};
    const uint32 four[] = {'a', 0, 'b', 0};
    qorString text;
    EXPECT_TRUE(text.SetUCS2(two));
    EXPECT_EQ(bytes(text), "a");
    EXPECT_TRUE(text.SetUCS2(two, 3));
    EXPECT_EQ(bytes(text), "a\0b"s);
    EXPECT_EQ(ucs2("a\0b"s), u"a\0b"s);
    EXPECT_TRUE(text.SetUCS2(two, 0));
    EXPECT_EQ(bytes(text), "");
    EXPECT_TRUE(text.SetUCS4(four));
    EXPECT_EQ(bytes(text), "a");
    EXPECT_TRUE(text.SetUCS4(four, 3));
    EXPECT_EQ(bytes(text), "a\0b"s);
    EXPECT_EQ(ucs4("a\0b"s), U"a\0b"s);
    EXPECT_TRUE(text.SetUCS4(nullptr, 5));
    EXPECT_EQ(bytes(text), "");
    EXPECT_TRUE(text.SetUCS2(nullptr));
    EXPECT_EQ(bytes(text), "");
    EXPECT_EQ(ucs2(""), u"");
    EXPECT_EQ(ucs4(""), U"");
}

TEST(unicode, the_block_is_replaced) {
    qorDataBlock block;
    block.AttachCopy("before", 6);
    EXPECT_TRUE(qorString("x").GetAsUCS2(block));
    EXPECT_EQ(units_of<char16_t>(block), u"x");
    EXPECT_TRUE(qorString().GetAsUCS4(block));
    EXPECT_EQ(block.Size(), 4u);
}

TEST(unicode, a_source_may_lie_in_the_string) {
    qorString text("aligned storage of some bytes");
    uint16* const units = reinterpret_cast<uint16*>(text.LockBuffer(24));
    for (uint16 i = 0; i < 10; ++i)
        units[i] = 0x20ac;
    EXPECT_TRUE(text.SetUCS2(units, 10));
    EXPECT_EQ(text.Length(), 30u);
    EXPECT_EQ(text.ReverseFindChar(0x20ac), 27);
}

} // namespace
