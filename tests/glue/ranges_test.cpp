// Arrays as C++ ranges: range-for, concepts, algorithms, and conversion from and to spans.
#include "qor/qor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <ranges>
#include <span>
#include <string>
#include <vector>

namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

template <class RANGE>
concept contiguous =
    std::ranges::contiguous_range<RANGE> && std::ranges::sized_range<RANGE> && std::ranges::common_range<RANGE>;

static_assert(contiguous<qorStringArray> && contiguous<const qorStringArray>);
static_assert(std::is_same_v<std::ranges::range_reference_t<qorStringArray&>, const qorString&>);
static_assert(std::is_convertible_v<qorStringArray&, std::span<const qorString>> &&
              !std::is_convertible_v<qorStringArray&, std::span<qorString>>);

std::vector<std::string> list(const qorStringArray& array) {
    std::vector<std::string> texts;
    for (const std::string_view text : array)
        texts.emplace_back(text);
    return texts;
}

using texts = std::vector<std::string>;

TEST(string_array_range, holds_the_elements) {
    qorStringArray array;
    EXPECT_EQ(array.begin(), array.end());
    EXPECT_TRUE(std::ranges::empty(array));
    array.Append("one");
    array.Append("t\0wo"sv);
    array.Append("three"s);
    EXPECT_EQ(list(array), (texts{"one", "t\0wo"s, "three"}));
    EXPECT_EQ(std::ranges::size(array), 3u);
    EXPECT_EQ(std::ranges::find(array, "three"sv) - array.begin(), 2);
    EXPECT_EQ(*std::ranges::max_element(array), "three"sv);
    uint32 index = 0;
    for (const char* const text : array)
        EXPECT_STREQ(text, array[index++]);
    EXPECT_EQ(index, 3u);
}

TEST(string_array_range, ends_at_the_count) {
    qorStringArray array;
    for (int i = 0; i < 20; ++i)
        array.Append("x");
    array.RemoveAt(5, 15);
    EXPECT_EQ(std::ranges::distance(array), 5);
}

TEST(string_array_range, takes_spans) {
    qorStringArray other;
    other.Append("a");
    other.Append("b\0c"sv);
    other.Append("d");
    qorStringArray array;
    array.Append(std::span<const qorString>(other).subspan(1));
    EXPECT_EQ(list(array), (texts{"b\0c"s, "d"}));

    const char* const words[] = {"x", nullptr, "y"};
    array.Append(std::span(words));
    EXPECT_EQ(list(array), (texts{"b\0c"s, "d", "x", "", "y"}));

    char program[] = "program";
    char word[] = "word";
    char* arguments[] = {program, word, nullptr};
    qorStringArray args;
    args.Append(std::span(arguments, 2));
    EXPECT_EQ(list(args), (texts{"program", "word"}));

    const std::vector<std::string_view> views = {"v", "w\0"sv};
    args.Append(std::span(views));
    EXPECT_EQ(list(args), (texts{"program", "word", "v", "w\0"s}));
    args.Append(std::span<const std::string_view>());
    EXPECT_EQ(args.GetCount(), 4u);
}

template <class ARRAY>
class typed_array_range : public testing::Test {};

using all_arrays = testing::Types<uint8_Array, int8_Array, uint16_Array, int16_Array, uint32_Array, int32_Array,
                                  uint64_Array, int64_Array, float_Array, double_Array>;
TYPED_TEST_SUITE(typed_array_range, all_arrays);

TYPED_TEST(typed_array_range, holds_the_elements) {
    using element = std::ranges::range_value_t<TypeParam>;
    static_assert(contiguous<TypeParam> && contiguous<const TypeParam>);
    static_assert(std::is_convertible_v<TypeParam&, std::span<element>>);
    static_assert(std::is_convertible_v<const TypeParam&, std::span<const element>> &&
                  !std::is_convertible_v<const TypeParam&, std::span<element>>);

    TypeParam array;
    EXPECT_EQ(array.begin(), array.end());
    EXPECT_TRUE(std::span<const element>(array).empty());

    const std::vector<element> elements = {3, 1, 2};
    array.Append(std::span(elements));
    array.Append(std::span<const element>());
    EXPECT_TRUE(std::ranges::equal(array, elements));
    array.InsertAt(1, std::span(elements).first(2));
    EXPECT_TRUE(std::ranges::equal(array, std::vector<element>{3, 3, 1, 1, 2}));

    std::ranges::sort(array);
    EXPECT_TRUE(std::ranges::equal(array, std::vector<element>{1, 1, 2, 3, 3}));
    for (element& value : array)
        value = static_cast<element>(value + 1);
    const TypeParam& same = array;
    EXPECT_EQ(std::accumulate(same.begin(), same.end(), element{}), element{15});

    const std::span<element> out = array;
    EXPECT_EQ(out.data(), array.GetDataPtr());
    EXPECT_EQ(out.size(), array.GetCount());
    out.back() = 100;
    EXPECT_EQ(*array.GetElementPtr(4), element{100});

    TypeParam copy;
    copy.Append(array); // appends the array as a whole, as before
    EXPECT_TRUE(copy.IsIdentical(array));
}

} // namespace
