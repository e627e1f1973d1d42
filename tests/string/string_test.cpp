#include "string_support.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace std::string_literals;

namespace {

constexpr char ascii_blanks[] = " \t\n\v\f\r";

TEST(string, empty_one_owns_no_storage) {
    const qorString text;
    EXPECT_EQ(text.m_data.text, nullptr);
    EXPECT_EQ(text.m_data.alloc, 0u);
    EXPECT_STREQ(text.Text(), "");
    EXPECT_TRUE(text.IsEmpty());

    EXPECT_EQ(qorString("").m_data.text, nullptr);
    EXPECT_EQ(qorString(text).m_data.text, nullptr);
    EXPECT_EQ(qorString(nullptr).m_data.text, nullptr);
}

TEST(string, nothing_allocates_for_nothing) {
    qorString text;
    text.Empty();
    text.Set("");
    text.Append("");
    text.Insert(0, "");
    text.Reserve(0);
    text.Remove(0, 5);
    text.ToUpper();
    text.ToLower();
    text.TrimBoth();
    text.TrimLeft();
    text.TrimRight();
    text.SetMid(3, -1);
    text.SetRight(2);
    text.UnlockBuffer(4);
    EXPECT_EQ(text.m_data.text, nullptr);
    EXPECT_TRUE(is_sound(text));
}

TEST(string, length_minus_one_means_up_to_the_terminator) {
    EXPECT_EQ(bytes(qorString("abc")), "abc");
    EXPECT_EQ(bytes(qorString("abc", 2)), "ab");
    EXPECT_EQ(bytes(qorString("a\0c", 3)), "a\0c"s);
}

TEST(string, null_is_an_empty_text) {
    qorString text("abc");
    text.Append(nullptr);
    text.Insert(1, nullptr);
    EXPECT_EQ(bytes(text), "abc");
    EXPECT_GT(text.Compare(nullptr), 0);
    EXPECT_EQ(text.CompareN(nullptr, 0), 0);
    EXPECT_GT(text.CompareNoCase(nullptr), 0);
    EXPECT_EQ(text.FindString(nullptr), 0);
    text.Set(nullptr, 7);
    EXPECT_TRUE(text.IsEmpty());
    text = nullptr;
    EXPECT_EQ(text.Compare(nullptr), 0);
}

TEST(string, copies_are_their_own_and_moves_are_not) {
    qorString source = made_of("a\0b"s);
    qorString copy(source);
    copy.AppendByte('!');
    EXPECT_EQ(bytes(source), "a\0b"s);
    EXPECT_EQ(bytes(copy), "a\0b!"s);

    const char* const storage = source.Text();
    qorString moved(std::move(source));
    EXPECT_EQ(moved.Text(), storage);
    copy = std::move(moved);
    EXPECT_EQ(copy.Text(), storage);

    copy = *&copy;
    EXPECT_EQ(bytes(copy), "a\0b"s);
    copy = copy.m_data.text + 2; // the source is a part of the string itself
    EXPECT_EQ(bytes(copy), "b");
}

TEST(string, emptying_keeps_the_storage) {
    qorString text("a line of a file that is being read");
    const char* const storage = text.Text();
    text.Empty();
    EXPECT_TRUE(text.IsEmpty());
    EXPECT_EQ(text.Text(), storage);
    text.Set("the next line");
    text.Append(", and more");
    EXPECT_EQ(text.Text(), storage);
    EXPECT_EQ(bytes(text), "the next line, and more");
}

TEST(string, growth_is_by_doubling_at_least) {
    qorString text;
    uint32 moves = 0;
    for (uint32 i = 0, alloc = 0; i < 100000; ++i) {
        text.AppendByte(static_cast<char>('a' + i % 26));
        if (text.m_data.alloc != alloc) {
            EXPECT_GE(text.m_data.alloc, 2 * alloc);
            alloc = text.m_data.alloc;
            ++moves;
        }
    }
    EXPECT_LE(moves, 14u);
    EXPECT_EQ(text.Length(), 100000u);
    EXPECT_EQ(text[99999], 'a' + 99999 % 26);
}

TEST(string, reserve_keeps_the_text) {
    qorString text("abc");
    text.Reserve(1000);
    const char* const storage = text.Text();
    EXPECT_GT(text.m_data.alloc, 1000u);
    EXPECT_EQ(bytes(text), "abc");
    text.Set(std::string(1000, 'x').c_str());
    EXPECT_EQ(text.Text(), storage);
    text.Reserve(10);
    EXPECT_EQ(text.Length(), 1000u);
}

TEST(string_DeathTest, no_text_is_longer_than_its_length_can_say) {
    qorString text;
    EXPECT_DEATH(text.Reserve(0x7fffffff), "");
    EXPECT_DEATH((void)text.LockBuffer(0xffffffff), "");
    EXPECT_DEATH(qor::glue::qorString_Append(&text, "a", 0x7fffffff), "");
}

TEST(string, insert_and_remove) {
    qorString text("held");
    text.Insert(0, "be");
    text.Insert(6, "!");
    text.Insert(99, "?");
    text.Insert(2, "-\0-", 3);
    EXPECT_EQ(bytes(text), "be-\0-held!?"s);
    text.Remove(2, 3);
    text.Remove(7, 99);
    text.Remove(7, 1);
    text.Remove(0, 0);
    EXPECT_EQ(bytes(text), "beheld!");
    text.Remove(1, 0xffffffff);
    EXPECT_EQ(bytes(text), "b");
}

// Every part of the string, also with its terminator, is a source for the string itself: with spare storage, and
// without, where the string has to move.
TEST(string, sources_may_lie_in_the_string_itself) {
    const std::string plain = "0123456789abcdef!";
    for (const uint32 spare : {0u, 100u})
        for (uint32 begin = 0; begin <= plain.size(); ++begin)
            for (uint32 length = 0; begin + length <= plain.size() + 1; ++length) {
                const std::string with_end = plain + '\0';
                const std::string part = with_end.substr(begin, length);
                const auto fresh = [&] {
                    qorString text = made_of(plain);
                    if (spare != 0)
                        text.Reserve(spare);
                    return text;
                };

                qorString text = fresh();
                text.Append(text.Text() + begin, static_cast<int32>(length));
                ASSERT_EQ(bytes(text), plain + part);
                ASSERT_TRUE(is_sound(text));

                text = fresh();
                text.Set(text.Text() + begin, static_cast<int32>(length));
                ASSERT_EQ(bytes(text), part);
                ASSERT_TRUE(is_sound(text));

                for (uint32 index = 0; index <= plain.size(); ++index) {
                    text = fresh();
                    text.Insert(index, text.Text() + begin, static_cast<int32>(length));
                    ASSERT_EQ(bytes(text), std::string(plain).insert(index, part))
                        << index << ' ' << begin << ' ' << length;
                    ASSERT_TRUE(is_sound(text));
                }
            }
}

TEST(string, byte_by_byte_into_itself) {
    qorString text("ab");
    for (int i = 0; i < 10; ++i)
        text.AppendString(text);
    EXPECT_EQ(text.Length(), 2048u);
    EXPECT_EQ(text.FindString("aa"), -1);
    EXPECT_EQ(text.FindString("bb"), -1);
}

TEST(string, locked_buffer) {
    qorString text("abc");
    char* buffer = text.LockBuffer(100);
    EXPECT_STREQ(buffer, "abc");
    std::fill_n(buffer, 100, 'x');
    text.UnlockBuffer(50);
    EXPECT_EQ(bytes(text), std::string(50, 'x'));

    // A completely filled buffer ends at its last byte, even if the storage is larger.
    buffer = text.LockBuffer(60);
    std::fill_n(buffer, 60, 'y');
    text.UnlockBuffer();
    EXPECT_EQ(bytes(text), std::string(60, 'y'));

    buffer = text.LockBuffer(10);
    buffer[4] = '\0';
    text.UnlockBuffer();
    EXPECT_EQ(bytes(text), "yyyy");

    (void)text.LockBuffer(3);
    text.UnlockBuffer(0x7fffffff);
    EXPECT_EQ(text.Length(), text.m_data.alloc - 1);
    EXPECT_TRUE(is_sound(text));

    qorString none;
    EXPECT_STREQ(none.LockBuffer(0), "");
    none.UnlockBuffer();
    EXPECT_TRUE(none.IsEmpty());
}

TEST(string, index) {
    const qorString text = made_of("a\xff"s);
    EXPECT_EQ(text[0], 'a');
    EXPECT_EQ(text[1], '\xff');
    EXPECT_EQ(text[2], '\0');
    EXPECT_EQ(text[-1], '\0');
    EXPECT_EQ(qorString()[0], '\0');
}

TEST(string, slices) {
    const qorString text("0123456789");
    EXPECT_EQ(bytes(text.Left(3)), "012");
    EXPECT_EQ(bytes(text.Left(0)), "");
    EXPECT_EQ(bytes(text.Left(99)), "0123456789");
    EXPECT_EQ(bytes(text.Left(0xffffffff)), "0123456789");
    EXPECT_EQ(bytes(text.Right(3)), "789");
    EXPECT_EQ(bytes(text.Right(0)), "");
    EXPECT_EQ(bytes(text.Right(0xffffffff)), "0123456789");
    EXPECT_EQ(bytes(text.Mid(4)), "456789");
    EXPECT_EQ(bytes(text.Mid(4, 2)), "45");
    EXPECT_EQ(bytes(text.Mid(4, 0)), "");
    EXPECT_EQ(bytes(text.Mid(9, 99)), "9");
    EXPECT_EQ(bytes(text.Mid(10)), "");
    EXPECT_EQ(bytes(text.Mid(0xffffffff)), "");
    EXPECT_EQ(bytes(qorString().Mid(0)), "");
}

TEST(string, slices_of_itself) {
    qorString text("0123456789");
    text.SetMid(2, -1);
    EXPECT_EQ(bytes(text), "23456789");
    text.SetLeft(6);
    EXPECT_EQ(bytes(text), "234567");
    text.SetRight(3);
    EXPECT_EQ(bytes(text), "567");
    text.GetMid(text, 1, 1);
    EXPECT_EQ(bytes(text), "6");
}

TEST(string, case_is_that_of_ascii_letters) {
    std::string all(256, '\0'), upper, lower;
    for (std::size_t i = 0; i < all.size(); ++i)
        all[i] = static_cast<char>(i);
    for (const char c : all) {
        upper += c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
        lower += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    qorString text = made_of(all);
    text.ToUpper();
    EXPECT_EQ(bytes(text), upper);
    text = made_of(all);
    text.ToLower();
    EXPECT_EQ(bytes(text), lower);
}

TEST(string, white_space_is_that_of_the_c_locale) {
    for (int byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        qorString text = made_of(std::string{c, 'x', c});
        text.TrimBoth();
        const bool blank = std::find(ascii_blanks, ascii_blanks + 6, c) != ascii_blanks + 6;
        EXPECT_EQ(text.Length(), blank ? 1u : 3u) << byte;
    }
}

TEST(string, trimming) {
    const std::string padded = ascii_blanks + "a b"s + ascii_blanks;
    qorString text = made_of(padded);
    text.TrimLeft();
    EXPECT_EQ(bytes(text), "a b"s + ascii_blanks);
    text.TrimRight();
    EXPECT_EQ(bytes(text), "a b");
    const char* const storage = text.Text();
    text.TrimBoth();
    EXPECT_EQ(bytes(text), "a b");
    EXPECT_EQ(text.Text(), storage);

    for (void (qorString::*trim)() noexcept : {&qorString::TrimLeft, &qorString::TrimRight, &qorString::TrimBoth}) {
        text = ascii_blanks;
        (text.*trim)();
        EXPECT_EQ(bytes(text), "");
        EXPECT_TRUE(is_sound(text));
    }
}

TEST(string, equality) {
    EXPECT_TRUE(qorString("abc") == "abc");
    EXPECT_FALSE(qorString("abc") == "abd");
    EXPECT_TRUE(made_of("a\0b"s) == made_of("a\0b"s));
    EXPECT_FALSE(made_of("a\0b"s) == made_of("a\0c"s));
    EXPECT_FALSE(made_of("a\0b"s) == "a");
    EXPECT_TRUE(qorString() == "");
}

std::string plain_trim(const std::string& text, bool left, bool right) {
    const std::size_t begin = left ? text.find_first_not_of(ascii_blanks) : 0;
    if (begin == text.npos)
        return "";
    const std::size_t last = right ? text.find_last_not_of(ascii_blanks) : text.size() - 1;
    return last == text.npos ? "" : text.substr(begin, last + 1 - begin);
}

// Long runs of changes, half of them with the string as its own source, compared with the C++ library's string.
TEST(string, behaves_as_the_plain_model) {
    generator random(20);
    const std::string alphabet = "aZ \t\n\0\xc3\xa9"s;
    for (int round = 0; round < 300; ++round) {
        qorString text;
        std::string model;
        for (int step = 0; step < 300; ++step) {
            const uint32 size = static_cast<uint32>(model.size());
            std::string source = random.from(alphabet, 20);
            const char* given = source.data();
            if (random.below(2) == 0 && size != 0) {
                const uint32 begin = random.below(size);
                source = model.substr(begin, random.below(size - begin + 1));
                given = text.Text() + begin;
            }
            const int32 length = static_cast<int32>(source.size());
            const uint32 index = random.below(size + 4);
            const uint32 at = std::min(index, size);
            const uint32 count = random.below(12);
            const uint32 operation = random.below(16);
            switch (operation) {
            case 0:
                text.Set(given, length);
                model = source;
                break;
            case 1:
            case 2:
                text.Append(given, length);
                model += source;
                break;
            case 3:
            case 4:
                text.Insert(index, given, length);
                model.insert(at, source);
                break;
            case 5:
                text.Remove(index, count);
                model.erase(at, count);
                break;
            case 6:
                text.SetMid(index, static_cast<int32>(count) - 1);
                model = model.substr(at, count == 0 ? model.npos : count - 1);
                break;
            case 7:
                text.SetRight(size - at);
                model = model.substr(at);
                break;
            case 8:
                text.ToUpper();
                std::transform(model.begin(), model.end(), model.begin(),
                               [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c ^ 32) : c; });
                break;
            case 9:
                text.ToLower();
                std::transform(model.begin(), model.end(), model.begin(),
                               [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c ^ 32) : c; });
                break;
            case 10:
                text.TrimLeft();
                model = plain_trim(model, true, false);
                break;
            case 11:
                text.TrimRight();
                model = plain_trim(model, false, true);
                break;
            case 12:
                text.TrimBoth();
                model = plain_trim(model, true, true);
                break;
            case 13:
                text.LockBuffer(size + count)[size] = 'L';
                text.UnlockBuffer(static_cast<int32>(size + std::min(count, 1u)));
                model += std::string(std::min(count, 1u), 'L');
                break;
            case 14:
                text.AppendByte('b');
                model += 'b';
                break;
            case 15:
                text.Reserve(count * 8);
                text = qorString(text);
                break;
            }
            ASSERT_EQ(bytes(text), model) << "round " << round << " step " << step << " operation " << operation;
            ASSERT_TRUE(is_sound(text));
        }
    }
}

} // namespace
