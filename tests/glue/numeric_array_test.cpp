#include "numeric_array_support.h"

#include <algorithm>

namespace {

using qor::test::recording_table;
using calls = std::vector<std::string>;

template <class ARRAY>
struct numeric_array : testing::Test {};
TYPED_TEST_SUITE(numeric_array, numeric_arrays, class_names);

TYPED_TEST(numeric_array, is_a_vector_of_its_elements) {
    static_assert(std::is_same_v<element_of<TypeParam>, typename named<TypeParam>::element>);
    static_assert(sizeof(TypeParam) == sizeof(qorVector));
    const TypeParam array;
    EXPECT_TRUE(array.IsEmpty());
    EXPECT_EQ(array.GetCount(), 0u);
    EXPECT_EQ(array.GetDataPtr(), nullptr);
    const auto& vector = reinterpret_cast<const qorVector&>(array);
    EXPECT_EQ(vector.m_data.chunk_size, sizeof(element_of<TypeParam>));
}

TYPED_TEST(numeric_array, holds_what_is_appended) {
    recording_table table;
    TypeParam array;
    for (int i = 0; i < 100; ++i) {
        const auto* const element = array.Append(static_cast<element_of<TypeParam>>(i));
        EXPECT_EQ(element, array.GetElementPtr(static_cast<uint32>(i)));
        EXPECT_EQ(*element, static_cast<element_of<TypeParam>>(i));
    }
    EXPECT_EQ(array.GetCount(), 100u);
    EXPECT_FALSE(array.IsEmpty());
    EXPECT_EQ(std::as_const(array).GetElementPtr(99), array.GetDataPtr() + 99);
    EXPECT_EQ(std::as_const(array).GetDataPtr(), array.GetDataPtr());
    *array.GetElementPtr(99) = 5;
    EXPECT_EQ(content(array)[99], 5);
    array.Empty();
    EXPECT_TRUE(array.IsEmpty());
    EXPECT_EQ(array.GetDataPtr(), nullptr);
    EXPECT_EQ(table.take(), calls{});
}

TYPED_TEST(numeric_array, runs_are_appended_and_inserted) {
    TypeParam array;
    const auto run = list<TypeParam>({1, 2, 3});
    array.Append(run.data(), 0);
    array.Append(nullptr, 0);
    array.InsertAt(7, nullptr, 0);
    EXPECT_EQ(array.GetDataPtr(), nullptr);
    array.Append(run.data(), 3);
    array.InsertAt(1, run.data(), 2);
    EXPECT_EQ(content(array), list<TypeParam>({1, 1, 2, 2, 3}));
    const auto* const element = array.InsertAt(0, 9);
    EXPECT_EQ(element, array.GetDataPtr());
    array.InsertAt(6, run.data() + 2, 1);
    EXPECT_EQ(content(array), list<TypeParam>({9, 1, 1, 2, 2, 3, 3}));
    // An index beyond the end means the end.
    const auto* const last = array.InsertAt(100, 8);
    EXPECT_EQ(last, array.GetElementPtr(7));
    array.InsertAt(0xffffffff, run.data(), 1);
    EXPECT_EQ(content(array), list<TypeParam>({9, 1, 1, 2, 2, 3, 3, 8, 1}));
}

TYPED_TEST(numeric_array, another_array_is_appended_and_copied) {
    TypeParam array, other, empty;
    fill(other, {4, 5});
    array.Append(empty);
    EXPECT_EQ(array.GetDataPtr(), nullptr);
    array.Append(other);
    array.Append(other);
    EXPECT_EQ(content(array), list<TypeParam>({4, 5, 4, 5}));
    EXPECT_EQ(content(other), list<TypeParam>({4, 5}));
    array.Copy(other);
    EXPECT_EQ(content(array), list<TypeParam>({4, 5}));
    EXPECT_NE(array.GetDataPtr(), other.GetDataPtr());
    array.Copy(empty);
    EXPECT_TRUE(array.IsEmpty());
}

TYPED_TEST(numeric_array, a_copy_of_itself_is_empty) {
    TypeParam array;
    fill(array, {1, 2, 3});
    array.Copy(array);
    EXPECT_TRUE(array.IsEmpty());
    array.Copy(array);
    EXPECT_TRUE(array.IsEmpty());
}

TYPED_TEST(numeric_array, appended_to_itself_is_doubled) {
    TypeParam array;
    array.Append(array);
    EXPECT_TRUE(array.IsEmpty());
    fill(array, {1, 2, 3});
    array.Append(array);
    EXPECT_EQ(content(array), list<TypeParam>({1, 2, 3, 1, 2, 3}));
    array.SetAlloc(100); // also when the storage need not move
    array.Append(array);
    EXPECT_EQ(content(array), list<TypeParam>({1, 2, 3, 1, 2, 3, 1, 2, 3, 1, 2, 3}));
}

TYPED_TEST(numeric_array, its_own_elements_as_values) {
    TypeParam array;
    fill(array, {7});
    for (int i = 0; i < 50; ++i) { // the storage moves several times
        array.Append(*array.GetElementPtr(0));
        array.InsertAt(0, *array.GetElementPtr(array.GetCount() - 1));
    }
    EXPECT_EQ(content(array), std::vector<element_of<TypeParam>>(101, 7));
    EXPECT_FALSE(array.AddUnique(*array.GetElementPtr(50)));
    EXPECT_TRUE(array.RemoveUnique(*array.GetElementPtr(50)));
    EXPECT_EQ(array.GetCount(), 100u);
}

TYPED_TEST(numeric_array, removes_from_the_front_the_middle_and_the_end) {
    recording_table table;
    TypeParam array;
    fill(array, {0, 1, 2, 3, 4, 5});
    array.RemoveAt(0, 1);
    array.RemoveAt(1, 2);
    array.RemoveAt(2, 1);
    EXPECT_EQ(content(array), list<TypeParam>({1, 4}));
    array.RemoveAt(5, 0);
    array.RemoveAt(0xffffffff, 0);
    EXPECT_EQ(content(array), list<TypeParam>({1, 4}));
    array.RemoveAt(0, 2);
    EXPECT_TRUE(array.IsEmpty());
    EXPECT_EQ(table.take(), calls{});
}

TYPED_TEST(numeric_array, a_range_beyond_the_end_is_reported_and_cut) {
    recording_table table;
    TypeParam array;
    fill(array, {3, 4});
    array.RemoveAt(1, 5);
    EXPECT_EQ(table.take(), calls{cut_range<TypeParam>()});
    EXPECT_EQ(content(array), list<TypeParam>({3}));
    array.RemoveAt(2, 1);
    EXPECT_EQ(table.take(), calls{cut_range<TypeParam>()});
    EXPECT_EQ(content(array), list<TypeParam>({3}));
    // The sum overflows to 1, so no range error is reported and no element is removed.
    array.RemoveAt(0xffffffff, 2);
    EXPECT_EQ(table.take(), calls{});
    EXPECT_EQ(content(array), list<TypeParam>({3}));
    array.RemoveAt(0, 0xffffffff);
    EXPECT_EQ(table.take(), calls{cut_range<TypeParam>()});
    EXPECT_TRUE(array.IsEmpty());
    array.RemoveAt(0, 1);
    EXPECT_EQ(table.take(), calls{cut_range<TypeParam>()});
}

TYPED_TEST(numeric_array, the_vector_is_asked_for_whole_ranges) {
    static std::vector<std::string> asked;
    asked.clear();
    recording_table table;
    static const auto real = table.rows;
    table.rows.qorVector_Collapse = [](qorVector* self, unsigned index, unsigned count) noexcept {
        asked.push_back("Collapse " + std::to_string(index) + " " + std::to_string(count));
        real.qorVector_Collapse(self, index, count);
    };
    table.rows.qorVector_Append = [](qorVector* self, unsigned count) noexcept {
        asked.push_back("Append " + std::to_string(count));
        return real.qorVector_Append(self, count);
    };
    table.rows.qorVector_Insert = [](qorVector* self, unsigned index, unsigned count) noexcept {
        asked.push_back("Insert " + std::to_string(index) + " " + std::to_string(count));
        return real.qorVector_Insert(self, index, count);
    };
    const auto run = list<TypeParam>({1, 2, 3});
    TypeParam array;
    array.Append(run.data(), 3);
    array.Append(array);
    array.Append(4);
    array.InsertAt(2, run.data(), 2);
    array.InsertAt(1, 1);
    array.SetCount(20);
    array.SetCount(20);
    array.SetCount(2);
    array.RemoveAt(1, 5);
    EXPECT_TRUE(array.RemoveUnique(1));
    EXPECT_EQ(asked, (calls{"Append 3", "Append 3", "Append 1", "Insert 2 2", "Insert 1 1", "Append 10",
                            "Collapse 2 18", "Collapse 1 5", "Collapse 0 1"}));
}

TYPED_TEST(numeric_array, its_count_is_set) {
    TypeParam array;
    fill(array, {1, 2, 3});
    array.SetCount(2);
    EXPECT_EQ(content(array), list<TypeParam>({1, 2}));
    array.SetCount(2);
    EXPECT_EQ(content(array), list<TypeParam>({1, 2}));
    array.SetCount(1000);
    EXPECT_EQ(array.GetCount(), 1000u);
    std::fill_n(array.GetDataPtr() + 2, 998, static_cast<element_of<TypeParam>>(3)); // within the allocated storage
    EXPECT_EQ(*array.GetElementPtr(0), 1);
    EXPECT_EQ(*array.GetElementPtr(1), 2);
    array.SetCount(0);
    EXPECT_TRUE(array.IsEmpty());
}

TYPED_TEST(numeric_array, makes_room_ahead_and_then_stays_where_it_is) {
    TypeParam array;
    array.SetAlloc(1000);
    EXPECT_TRUE(array.IsEmpty());
    const void* const place = array.GetDataPtr();
    array.SetCount(500);
    for (int i = 0; i < 500; ++i)
        array.Append(1);
    EXPECT_EQ(array.GetDataPtr(), place);
    array.SetAlloc(10);
    EXPECT_EQ(array.GetCount(), 1000u);
}

TYPED_TEST(numeric_array, as_a_set) {
    TypeParam array;
    EXPECT_EQ(array.Find(7), -1);
    EXPECT_FALSE(array.IsPresent(7));
    EXPECT_FALSE(array.RemoveUnique(7));
    EXPECT_TRUE(array.AddUnique(7));
    EXPECT_TRUE(array.AddUnique(8));
    array.Append(7);
    EXPECT_FALSE(array.AddUnique(7));
    EXPECT_EQ(array.Find(7), 0);
    EXPECT_EQ(array.Find(8), 1);
    EXPECT_TRUE(array.IsPresent(8));
    EXPECT_EQ(content(array), list<TypeParam>({7, 8, 7}));
    EXPECT_TRUE(array.RemoveUnique(7));
    EXPECT_EQ(content(array), list<TypeParam>({8, 7}));
    EXPECT_FALSE(array.RemoveUnique(9));
    EXPECT_EQ(content(array), list<TypeParam>({8, 7}));
}

TYPED_TEST(numeric_array, identical_arrays_have_the_same_bytes) {
    TypeParam array, other;
    EXPECT_TRUE(array.IsIdentical(other));
    EXPECT_TRUE(array.IsIdentical(array));
    fill(array, {1, 2});
    EXPECT_FALSE(array.IsIdentical(other));
    EXPECT_FALSE(other.IsIdentical(array));
    fill(other, {1, 3});
    EXPECT_FALSE(array.IsIdentical(other));
    *other.GetElementPtr(1) = 2;
    EXPECT_TRUE(array.IsIdentical(other));
    other.Append(2);
    EXPECT_FALSE(array.IsIdentical(other));
    EXPECT_FALSE(other.IsIdentical(array));
}

TYPED_TEST(numeric_array, without_memory_stays_as_it_was) {
    recording_table table;
    TypeParam array, other;
    fill(array, {1, 2});
    fill(other, {1, 2});
    table.rows.qorVector_Append = [](qorVector*, unsigned) noexcept -> void* { return nullptr; };
    table.rows.qorVector_Insert = [](qorVector*, unsigned, unsigned) noexcept -> void* { return nullptr; };
    table.rows.qorVector_SetAlloc = [](qorVector*, unsigned) noexcept { return false; };
    EXPECT_THROW(array.Append(3), std::bad_alloc);
    EXPECT_THROW(array.Append(other), std::bad_alloc);
    EXPECT_THROW(array.Append(array), std::bad_alloc);
    EXPECT_THROW(array.Append(other.GetDataPtr(), 2), std::bad_alloc);
    EXPECT_THROW(array.InsertAt(1, 3), std::bad_alloc);
    EXPECT_THROW(array.InsertAt(0, other.GetDataPtr(), 2), std::bad_alloc);
    EXPECT_THROW(array.SetCount(3), std::bad_alloc);
    EXPECT_THROW(array.SetAlloc(3), std::bad_alloc);
    EXPECT_THROW(array.AddUnique(3), std::bad_alloc);
    EXPECT_TRUE(array.IsIdentical(other));
    EXPECT_THROW(array.Copy(other), std::bad_alloc);
    EXPECT_TRUE(array.IsEmpty());
}

} // namespace
