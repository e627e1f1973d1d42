#include "value_types_support.h"

#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <type_traits>

namespace {

// ---- common properties
template <class TYPE>
struct value_class : testing::Test {};
TYPED_TEST_SUITE(value_class, value_types);

TYPED_TEST(value_class, is_its_fields_in_their_order_and_nothing_else) {
    static_assert(std::is_trivially_copyable_v<TypeParam>);
    static_assert(std::is_standard_layout_v<TypeParam>);
    static_assert(!std::is_polymorphic_v<TypeParam>);
    TypeParam value;
    std::size_t offset = 0;
    for_each_field(value, [&](auto& field, std::size_t) {
        EXPECT_EQ(reinterpret_cast<char*>(&field) - reinterpret_cast<char*>(&value),
                  static_cast<std::ptrdiff_t>(offset));
        offset += sizeof field;
    });
    EXPECT_EQ(sizeof value, offset);
}

TYPED_TEST(value_class, is_made_set_and_copied_field_by_field) {
    TypeParam model = numbered<TypeParam>();
    std::apply(
        [&](auto&... field) {
            const TypeParam made(field...);
            EXPECT_EQ(made, model);
            TypeParam set;
            set.Set(field...);
            EXPECT_EQ(set, model);
        },
        fields(model));
    const TypeParam copy(model);
    TypeParam assigned;
    assigned = copy;
    EXPECT_EQ(assigned, model);
    EXPECT_EQ(fields(assigned), fields(model));
}

TYPED_TEST(value_class, is_equal_only_where_every_field_is) {
    const TypeParam value = numbered<TypeParam>();
    TypeParam other = value;
    EXPECT_TRUE(value == other);
    EXPECT_FALSE(value != other);
    for_each_field(other, [&](auto& field, std::size_t) {
        ++field;
        EXPECT_FALSE(value == other);
        EXPECT_TRUE(value != other);
        --field;
    });
    EXPECT_TRUE(value == other);
}

TEST(value_types, begin_as_nothing) {
    EXPECT_EQ(qorSize(), qorSize(0, 0));
    EXPECT_EQ(qorPoint(), qorPoint(0, 0));
    EXPECT_EQ(qorRect(), qorRect(0, 0, 0, 0));
    EXPECT_EQ(qorRational(), qorRational(0, 0));
    EXPECT_EQ(qorTimecode(), qorTimecode(0, 0, 0, 0));
    EXPECT_EQ(qorColour(), qorColour(0, 0, 0, 65535));
}

// ---- points and rectangles
TEST(geometry, empty_is_all_zero) {
    qorPoint point(1, 2);
    point.Empty();
    EXPECT_EQ(point, qorPoint());
    qorRect rect(1, 2, 3, 4);
    rect.Empty();
    EXPECT_EQ(rect, qorRect());
}

TEST(geometry, a_rectangle_is_a_point_and_a_size) {
    const qorRect rect(qorPoint(10, 20), qorSize(3, 4));
    EXPECT_EQ(rect, qorRect(10, 20, 13, 24));
    EXPECT_EQ(rect.GetSize(), qorSize(3, 4));
    EXPECT_EQ(rect.GetWidth(), 3);
    EXPECT_EQ(rect.GetHeight(), 4);
    EXPECT_EQ(rect.GetTopLeft(), qorPoint(10, 20));
    EXPECT_EQ(rect.GetTopRight(), qorPoint(13, 20));
    EXPECT_EQ(rect.GetBottomLeft(), qorPoint(10, 24));
    EXPECT_EQ(rect.GetBottomRight(), qorPoint(13, 24));
    qorRect set;
    set.Set(qorPoint(-5, -6), qorSize(-1, 2));
    EXPECT_EQ(set, qorRect(-5, -6, -6, -4));
    EXPECT_EQ(set.GetSize(), qorSize(-1, 2));
}

TEST(geometry, a_rectangle_moves) {
    qorRect rect(1, 2, 3, 4);
    rect.OffsetRect(10, -20);
    EXPECT_EQ(rect, qorRect(11, -18, 13, -16));
}

TEST(geometry, a_rectangle_holds_its_left_and_top_but_not_its_right_and_bottom) {
    const qorRect rect(-2, 5, 1, 7);
    for (int x = -4; x < 4; ++x)
        for (int y = 3; y < 10; ++y) {
            const bool inside = (x == -2 || x == -1 || x == 0) && (y == 5 || y == 6);
            EXPECT_EQ(rect.IsInside(x, y), inside) << x << " " << y;
            EXPECT_EQ(rect.IsInside(qorPoint(x, y)), inside) << x << " " << y;
        }
    EXPECT_FALSE(qorRect(1, 5, -2, 7).IsInside(0, 6)); // not normalised
    EXPECT_FALSE(qorRect(3, 3, 3, 3).IsInside(3, 3));
    EXPECT_TRUE(qorRect(INT_MIN, INT_MIN, INT_MAX, INT_MAX).IsInside(INT_MIN, INT_MAX - 1));
    EXPECT_FALSE(qorRect(INT_MIN, INT_MIN, INT_MAX, INT_MAX).IsInside(INT_MAX, 0));
}

TEST(geometry, normalise_swaps_what_is_the_wrong_way_round) {
    const auto normalised = [](qorRect rect) {
        rect.Normalise();
        return rect;
    };
    EXPECT_EQ(normalised({10, 10, 0, 0}), qorRect(0, 0, 10, 10));
    EXPECT_EQ(normalised({10, 1, 0, 2}), qorRect(0, 1, 10, 2));
    EXPECT_EQ(normalised({0, 2, 10, 1}), qorRect(0, 1, 10, 2));
    EXPECT_EQ(normalised({0, 1, 10, 2}), qorRect(0, 1, 10, 2));
    EXPECT_EQ(normalised({5, 5, 5, 5}), qorRect(5, 5, 5, 5));
    EXPECT_EQ(normalised({INT_MAX, 0, INT_MIN, 0}), qorRect(INT_MIN, 0, INT_MAX, 0));
}

TEST(geometry, sums_and_differences_wrap) {
    EXPECT_EQ(qorRect(qorPoint(INT_MAX, INT_MIN), qorSize(1, -1)), qorRect(INT_MAX, INT_MIN, INT_MIN, INT_MAX));
    EXPECT_EQ(qorRect(INT_MIN, INT_MAX, INT_MAX, INT_MIN).GetSize(), qorSize(-1, 1));
    qorRect rect(INT_MAX, INT_MIN, 0, 0);
    rect.OffsetRect(1, -1);
    EXPECT_EQ(rect, qorRect(INT_MIN, INT_MAX, 1, -1));
}

// ---- colours
TEST(colour, three_components_leave_alpha_alone) {
    qorColour colour;
    colour.Set(1, 2, 3);
    EXPECT_EQ(colour, qorColour(1, 2, 3, 65535));
    colour.Set(4, 5, 6, 7);
    EXPECT_EQ(colour, qorColour(4, 5, 6, 7));
    colour.Set(8, 9, 10);
    EXPECT_EQ(colour, qorColour(8, 9, 10, 7));
}

// ---- fractions
TEST(rational, is_a_number) {
    EXPECT_EQ(qorRational(25, 1).fp_val(), 25.0);
    EXPECT_EQ(qorRational(30000, 1001).fp_val(), 30000.0 / 1001.0);
    EXPECT_EQ(qorRational(-1, 4).fp_val(), -0.25);
    EXPECT_EQ(qorRational(INT_MIN, 0xffffffff).fp_val(), -2147483648.0 / 4294967295.0);
    EXPECT_EQ(qorRational(0, 5).fp_val(), 0.0);
    for (const int numerator : {0, 1, -1, INT_MAX, INT_MIN})
        EXPECT_EQ(qorRational(numerator, 0).fp_val(), 0.0);
    EXPECT_NE(qorRational(1, 2), qorRational(2, 4));
}

} // namespace
