#include "numeric_array_support.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <memory>
#include <random>

namespace {

template <class ARRAY>
struct numeric_array_order : testing::Test {};
TYPED_TEST_SUITE(numeric_array_order, numeric_arrays, class_names);

// The result that the contract requires, computed differently: from the bytes of the difference, or from its decimal
// digits.
template <class ELEMENT>
int32 expected_order(ELEMENT first, ELEMENT second) {
    if constexpr (std::is_floating_point_v<ELEMENT>) {
        const ELEMENT difference = first - second;
        if (std::isnan(difference))
            return INT_MIN;
        const double whole = std::trunc(static_cast<double>(difference));
        return whole < -2147483648.0 || whole > 2147483647.0 ? INT_MIN : std::lrint(whole);
    } else {
        __extension__ using wide = __int128;
        wide difference = (wide{first} - wide{second}) % (wide{1} << 32);
        if (difference >= wide{1} << 31)
            difference -= wide{1} << 32;
        if (difference < -(wide{1} << 31))
            difference += wide{1} << 32;
        return static_cast<int32>(difference);
    }
}

TYPED_TEST(numeric_array_order, is_the_squeezed_difference_at_all_corners) {
    const auto values = corners<element_of<TypeParam>>();
    for (const auto first : values)
        for (const auto second : values) {
            const int32 order = expected_order(first, second);
            ASSERT_EQ(TypeParam::sorthelper_ascending(&first, &second), order) << +first << " " << +second;
            ASSERT_EQ(TypeParam::sorthelper_descending(&second, &first), order) << +first << " " << +second;
        }
}

TYPED_TEST(numeric_array_order, sorts_numbers_that_lie_close_together) {
    std::mt19937 random(2);
    for (uint32 count = 0; count < 200; ++count) {
        TypeParam array;
        for (uint32 i = 0; i < count; ++i)
            array.Append(static_cast<element_of<TypeParam>>(random() % 100));
        auto model = content(array);
        array.Sort(true);
        std::sort(model.begin(), model.end());
        ASSERT_EQ(content(array), model);
        array.Sort(false);
        std::reverse(model.begin(), model.end());
        ASSERT_EQ(content(array), model);
    }
}

TEST(numeric_array_orders, small_types_are_sorted_right) {
    const auto check = [](auto array, auto lowest) {
        using element = decltype(lowest);
        const element highest = std::numeric_limits<element>::max();
        for (const element value : {element{0}, highest, element{1}, lowest, highest})
            array->Append(value);
        array->Sort(true);
        EXPECT_EQ(content(*array), (lowest == 0 ? std::vector<element>{0, lowest, 1, highest, highest}
                                                : std::vector<element>{lowest, 0, 1, highest, highest}));
    };
    check(std::make_unique<uint8_Array>(), uint8{0});
    check(std::make_unique<int8_Array>(), int8{SCHAR_MIN});
    check(std::make_unique<uint16_Array>(), uint16{0});
    check(std::make_unique<int16_Array>(), int16{SHRT_MIN});
}

// ---- effects of a 32-bit comparison result on the order
TEST(numeric_array_orders, a_difference_of2_to_the31_or_more_sorts_the_wrong_way_round) {
    uint32_Array array;
    for (const bool swapped : {false, true}) {
        array.Empty();
        array.Append(swapped ? 3000000000u : 0u);
        array.Append(swapped ? 0u : 3000000000u);
        array.Sort(true);
        EXPECT_EQ(content(array), (std::vector<uint32>{3000000000, 0}));
        array.Sort(false);
        EXPECT_EQ(content(array), (std::vector<uint32>{0, 3000000000}));
    }
    const uint32 zero = 0, large = 3000000000;
    EXPECT_EQ(uint32_Array::sorthelper_ascending(&zero, &large), 1294967296);

    int32_Array signed_array;
    signed_array.Append(INT_MIN);
    signed_array.Append(1);
    signed_array.Sort(true);
    EXPECT_EQ(content(signed_array), (std::vector<int32>{1, INT_MIN}));
}

TEST(numeric_array_orders, the_upper_half_of64_bits_does_not_count) {
    const uint64 zero = 0, multiple = 4294967296, half = 2147483648;
    EXPECT_EQ(uint64_Array::sorthelper_ascending(&multiple, &zero), 0);
    EXPECT_EQ(uint64_Array::sorthelper_descending(&multiple, &zero), 0);
    EXPECT_EQ(uint64_Array::sorthelper_ascending(&half, &zero), INT_MIN);
    const int64 minus_multiple = -4294967296, nothing = 0;
    EXPECT_EQ(int64_Array::sorthelper_ascending(&minus_multiple, &nothing), 0);

    uint64_Array array;
    array.Append(multiple);
    array.Append(zero);
    array.Sort(true); // either order will do
    EXPECT_EQ(*array.GetElementPtr(0) + *array.GetElementPtr(1), multiple);
    EXPECT_TRUE(array.IsPresent(zero));
}

template <class ARRAY>
void check_floating_orders() {
    using element = element_of<ARRAY>;
    const auto order = [](double first, double second) {
        const element values[] = {static_cast<element>(first), static_cast<element>(second)};
        return ARRAY::sorthelper_ascending(&values[0], &values[1]);
    };
    EXPECT_EQ(order(0.5, 0.25), 0);
    EXPECT_EQ(order(0.25, 0.5), 0);
    EXPECT_EQ(order(2.75, 1), 1);
    EXPECT_EQ(order(1, 2.75), -1);
    EXPECT_EQ(order(2147483648.0, 0), INT_MIN);
    EXPECT_EQ(order(0, 2147483648.0), INT_MIN);
    EXPECT_EQ(order(1e30, 0), INT_MIN);
    EXPECT_EQ(order(NAN, 0), INT_MIN);
    EXPECT_EQ(order(0, NAN), INT_MIN);
    EXPECT_EQ(order(NAN, NAN), INT_MIN);
    EXPECT_EQ(order(INFINITY, INFINITY), INT_MIN);
    EXPECT_EQ(order(2147483000.0, 0), static_cast<int32>(static_cast<element>(2147483000.0)));

    ARRAY array;
    array.Append(static_cast<element>(0.5));
    array.Append(static_cast<element>(0.25));
    array.Sort(true); // either order will do
    EXPECT_EQ(*array.GetElementPtr(0) + *array.GetElementPtr(1), static_cast<element>(0.75));
    EXPECT_EQ(array.GetCount(), 2u);
}

TEST(numeric_array_orders, floating_differences_are_cut_towards_zero) {
    check_floating_orders<float_Array>();
    check_floating_orders<double_Array>();
    // The difference has the precision of the type: in single precision this one is 0.
    const float wide[] = {16777216.0f, 16777216.0f + 1.0f};
    EXPECT_EQ(float_Array::sorthelper_ascending(&wide[1], &wide[0]), 0);
    const double same[] = {16777216.0, 16777216.0 + 1.0};
    EXPECT_EQ(double_Array::sorthelper_ascending(&same[1], &same[0]), 1);
    const double beyond[] = {-2147483648.5, 0};
    EXPECT_EQ(double_Array::sorthelper_ascending(&beyond[0], &beyond[1]), INT_MIN);
    const double within[] = {2147483647.5, 0};
    EXPECT_EQ(double_Array::sorthelper_ascending(&within[0], &within[1]), INT_MAX);
}

template <class ARRAY>
void check_floating_equality() {
    using element = element_of<ARRAY>;
    const element nan = std::numeric_limits<element>::quiet_NaN();
    ARRAY array, other;
    array.Append(nan);
    array.Append(element{-0.0});
    EXPECT_EQ(array.Find(nan), -1);
    EXPECT_FALSE(array.IsPresent(nan));
    EXPECT_FALSE(array.RemoveUnique(nan));
    EXPECT_EQ(array.Find(0.0), 1);
    EXPECT_FALSE(array.AddUnique(0.0));
    EXPECT_TRUE(array.AddUnique(nan));
    array.SetCount(2);

    other.Append(nan);
    other.Append(element{0.0});
    EXPECT_FALSE(array.IsIdentical(other));
    *other.GetElementPtr(1) = element{-0.0};
    EXPECT_TRUE(array.IsIdentical(other));
    EXPECT_TRUE(array.RemoveUnique(0.0));
    EXPECT_EQ(array.GetCount(), 1u);
}

TEST(numeric_array_orders, numbers_are_found_by_value_and_compare_by_their_bytes) {
    check_floating_equality<float_Array>();
    check_floating_equality<double_Array>();
}

} // namespace
