// The string as a C++ value: comparison, hashing, conversion from and to views, and code that must not compile.
#include "qor/qor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

// ---- operators that would use the address of the text

template <class TYPE>
concept is_condition = requires(TYPE value) {
    value ? 1 : 0;
};
template <class TYPE>
concept has_not = requires(TYPE value) {
    !value;
};
template <class TYPE>
concept has_and = requires(TYPE value) {
    value && true;
};
template <class LEFT, class RIGHT>
concept has_plus = requires(LEFT left, RIGHT right) {
    left + right;
};
template <class LEFT, class RIGHT>
concept has_minus = requires(LEFT left, RIGHT right) {
    left - right;
};
template <class TYPE>
concept has_star = requires(TYPE value) {
    *value;
};
template <class TYPE>
concept has_increment = requires(TYPE value) {
    ++value;
};
template <class TYPE>
concept has_plus_assignment = requires(TYPE value) {
    value += 1;
};

// Shows that the concepts detect these operators.
static_assert(is_condition<const char*> && has_not<const char*> && has_and<const char*> && has_star<const char*>);
static_assert(has_plus<const char*, int> && has_minus<const char*, const char*> && has_increment<const char*>);

static_assert(!is_condition<qorString> && !is_condition<const qorString&>);
static_assert(!has_not<qorString> && !has_and<qorString> && !has_star<qorString>);
static_assert(!has_plus<qorString, int> && !has_plus<int, qorString> && !has_plus<qorString, unsigned long>);
static_assert(!has_plus<qorString, qorString> && !has_plus<qorString, const char*> && !has_plus<qorString, char>);
static_assert(!has_minus<qorString, qorString> && !has_minus<qorString, const char*> &&
              !has_minus<const char*, qorString> && !has_minus<qorString, int>);
static_assert(!has_increment<qorString&> && !has_plus_assignment<qorString&>);
static_assert(!std::is_constructible_v<bool, qorString> && !std::is_convertible_v<qorString, bool>);
static_assert(!std::is_convertible_v<qorString, const void*> && !std::is_convertible_v<qorString, int>);
static_assert(std::is_convertible_v<qorString, const char*> && std::is_convertible_v<qorString, std::string_view>);

// A view is copied only explicitly.
static_assert(std::is_constructible_v<qorString, std::string_view> &&
              !std::is_convertible_v<std::string_view, qorString>);

static_assert(std::totally_ordered<qorString> && std::three_way_comparable<qorString, std::strong_ordering>);
static_assert(std::totally_ordered_with<qorString, std::string_view>);
static_assert(std::three_way_comparable_with<qorString, std::string_view, std::strong_ordering>);

int sign(std::strong_ordering order) { return order < 0 ? -1 : order > 0 ? 1 : 0; }

// Compares with the C library, on unsigned bytes.
int model(std::string_view left, std::string_view right) {
    const int order = std::memcmp(left.data(), right.data(), std::min(left.size(), right.size()));
    if (order != 0)
        return order < 0 ? -1 : 1;
    return left.size() == right.size() ? 0 : left.size() < right.size() ? -1 : 1;
}

const std::vector<std::string>& texts() {
    static const std::vector<std::string> all = {"",     "a",    "A",        "ab",  "abc",  "b",     "\x7f",
                                                 "\x80", "\xff", "\xc3\xa4", "\0"s, "a\0"s, "a\0b"s, "a\0c"s};
    return all;
}

TEST(string_value, compares_by_its_bytes) {
    for (const std::string& left : texts())
        for (const std::string& right : texts()) {
            const qorString ours(left);
            const qorString other(right);
            const std::string_view view(right);
            const int expected = model(left, right);
            SCOPED_TRACE(testing::PrintToString(left) + " and " + testing::PrintToString(right));
            EXPECT_EQ(sign(ours <=> other), expected);
            EXPECT_EQ(sign(ours <=> view), expected);
            EXPECT_EQ(sign(ours <=> right), expected);
            EXPECT_EQ(sign(view <=> ours), -expected);
            EXPECT_EQ(ours == other, expected == 0);
            EXPECT_EQ(ours == view, expected == 0);
            EXPECT_EQ(view == ours, expected == 0);
            EXPECT_EQ(ours != right, expected != 0);
            EXPECT_EQ(ours < other, expected < 0);
            EXPECT_EQ(ours <= view, expected <= 0);
            EXPECT_EQ(view > ours, expected < 0);
            if (right.find('\0') == right.npos) {
                EXPECT_EQ(sign(ours <=> right.c_str()), expected);
                EXPECT_EQ(right.c_str() == ours, expected == 0);
                EXPECT_EQ(right.c_str() >= ours, expected <= 0);
            }
        }
}

TEST(string_value, takes_a_null_text_for_an_empty_one) {
    const char* const null = nullptr;
    EXPECT_TRUE(qorString() == null);
    EXPECT_TRUE(qorString("a") > null);
    EXPECT_TRUE(qorString(std::string_view()).IsEmpty());
}

TEST(string_value, is_a_key) {
    std::set<qorString> ordered;
    std::set<qorString, std::less<>> transparent;
    std::map<qorString, int> numbers;
    std::unordered_map<qorString, int> hashed;
    int number = 0;
    for (const std::string& text : texts()) {
        ordered.insert(qorString(text));
        transparent.insert(qorString(text));
        numbers[qorString(text)] = ++number;
        hashed[qorString(text)] = number;
    }
    const std::set<std::string> expected(texts().begin(), texts().end());
    EXPECT_TRUE(std::equal(ordered.begin(), ordered.end(), expected.begin(), expected.end()));
    EXPECT_TRUE(std::equal(transparent.begin(), transparent.end(), expected.begin(), expected.end()));
    for (const std::string& text : texts()) {
        EXPECT_TRUE(ordered.contains(qorString(text)));
        EXPECT_TRUE(transparent.contains(std::string_view(text)));
        EXPECT_EQ(numbers.at(qorString(text)), hashed.at(qorString(text)));
        EXPECT_EQ(std::hash<qorString>()(qorString(text)), std::hash<std::string_view>()(text));
    }
    EXPECT_TRUE(transparent.contains("abc"));
    EXPECT_FALSE(transparent.contains("abcd"));
}

TEST(string_value, sorts_with_the_algorithms_of_the_library) {
    std::vector<qorString> ours;
    for (const std::string& text : texts())
        ours.emplace_back(text);
    std::vector<std::string> expected = texts();
    std::ranges::sort(ours);
    std::ranges::sort(expected);
    EXPECT_TRUE(std::equal(ours.begin(), ours.end(), expected.begin(), expected.end()));
    std::ranges::sort(ours, std::greater<>());
    EXPECT_TRUE(std::equal(ours.begin(), ours.end(), expected.rbegin(), expected.rend()));
    EXPECT_NE(std::ranges::find(ours, "abc"sv), ours.end());
}

TEST(string_value, takes_views_whole) {
    for (const std::string& text : texts()) {
        const std::string_view view = text;
        qorString made(view);
        EXPECT_EQ(made.Length(), text.size());
        EXPECT_EQ(std::string(std::string_view(made)), text);
        made = "before";
        made = view;
        EXPECT_EQ(made, view);
        made.Append(view);
        EXPECT_EQ(made, text + text);
        made.Set(text);
        EXPECT_EQ(made, text);
        EXPECT_EQ(made.Text()[made.Length()], '\0');
    }
}

TEST(string_value, takes_a_view_of_itself) {
    qorString text("one two");
    text = std::string_view(text).substr(4);
    EXPECT_EQ(text, "two");
    text.Append(std::string_view(text));
    EXPECT_EQ(text, "twotwo");
}

const char* kind(const char*) { return "text"; }
[[maybe_unused]] const char* kind(bool) { return "condition"; }

TEST(string_value, converts_to_text_and_view) {
    const qorString text(std::string_view("a\0b", 3));
    const char* const plain = text;
    EXPECT_EQ(plain, text.Text());
    const std::string_view copied = text;
    const std::string_view direct(text);
    EXPECT_EQ(copied, direct);
    EXPECT_EQ(direct.data(), text.Text());
    EXPECT_EQ(direct.size(), 3u);
    std::string_view assigned;
    assigned = text;
    EXPECT_EQ(assigned, direct);
    EXPECT_STREQ(kind(text), "text");
    EXPECT_EQ(std::string(qorString("abc")), "abc");
    std::vector<const char*> list;
    list.push_back(text);
    EXPECT_EQ(list.front(), text.Text());
}

#ifdef __cpp_lib_format
TEST(string_value, is_formatted_as_a_view) {
    EXPECT_EQ(std::format("<{}>", qorString("abc")), "<abc>");
    EXPECT_EQ(std::format("<{:>5.2}>", qorString("abc")), "<   ab>");
}
#endif

} // namespace
