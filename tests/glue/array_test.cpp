#include "support/recording_table.h"

#include <gtest/gtest.h>

namespace {

using qor::test::recording_table;
using calls = std::vector<std::string>;

std::string cut_range(const std::string& type) {
    return qor::test::assertion("index + count <= m_vec.GetCount()",
                                "void zetArray<TYPE>::RemoveAt(uint32, uint32) [with TYPE = " + type + "]",
                                "qorcore/include/qor/system/template/Array", 92);
}

// An element that counts the live objects of its type.
struct counted {
    counted(int number, int& alive_now) : value(number), alive(&alive_now) { ++*alive; }
    counted(const counted& other) : value(other.value), alive(other.alive) { ++*alive; }
    counted& operator=(const counted&) = delete;
    ~counted() { --*alive; }

    int value;
    int* alive;
};

template <class TYPE>
std::vector<int> values(const zetArray<TYPE>& array) {
    std::vector<int> result;
    for (uint32 i = 0; i < array.GetCount(); ++i) {
        if constexpr (std::is_same_v<TYPE, counted>)
            result.push_back(array[i].value);
        else
            result.push_back(array[i]);
    }
    return result;
}

TEST(array, holds_what_is_appended) {
    recording_table table;
    zetArray<int> array;
    EXPECT_TRUE(array.IsEmpty());
    EXPECT_EQ(array.begin(), array.end());
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(array.Append(i * i), i * i);
    EXPECT_EQ(array.GetCount(), 100u);
    EXPECT_FALSE(array.IsEmpty());
    EXPECT_EQ(array[99], 9801);
    array[99] = 5;
    EXPECT_EQ(*(array.end() - 1), 5);
    array.Empty();
    EXPECT_TRUE(array.IsEmpty());
    EXPECT_EQ(table.take(), calls{});
}

TEST(array, constructs_and_destroys_its_elements) {
    int alive = 0;
    {
        zetArray<counted> array;
        for (int i = 0; i < 20; ++i)
            array.Append(counted(i, alive));
        EXPECT_EQ(alive, 20);
        array.RemoveAt(5, 10);
        EXPECT_EQ(alive, 10);
        EXPECT_EQ(values(array), (std::vector{0, 1, 2, 3, 4, 15, 16, 17, 18, 19}));
        array.Empty();
        EXPECT_EQ(alive, 0);
        array.Append(counted(1, alive));
    }
    EXPECT_EQ(alive, 0);
}

TEST(array, appends_an_element_of_its_own) {
    zetArray<qorString> array;
    array.Append(qorString("a text that is long enough to live in storage of its own"));
    for (int i = 0; i < 50; ++i)
        array.Append(array[0]);
    EXPECT_EQ(array.GetCount(), 51u);
    EXPECT_TRUE(array[50] == array[0]);
}

TEST(array, removes_from_the_front_the_middle_and_the_end) {
    recording_table table;
    zetArray<int> array;
    for (int i = 0; i < 6; ++i)
        array.Append(i);
    array.RemoveAt(0, 1);
    array.RemoveAt(1, 2);
    array.RemoveAt(2, 1);
    EXPECT_EQ(values(array), (std::vector{1, 4}));
    array.RemoveAt(2, 0);
    array.RemoveAt(0, 2);
    EXPECT_TRUE(array.IsEmpty());
    array.RemoveAt(0, 0);
    EXPECT_EQ(table.take(), calls{});
}

TEST(array, a_range_beyond_the_end_is_reported_and_cut) {
    recording_table table;
    zetArray<int> array;
    for (int i = 0; i < 4; ++i)
        array.Append(i);
    array.RemoveAt(2, 3);
    EXPECT_EQ(table.take(), calls{cut_range("int")});
    EXPECT_EQ(values(array), (std::vector{0, 1}));
    array.RemoveAt(3, 0);
    EXPECT_EQ(table.take(), calls{cut_range("int")});
    array.RemoveAt(0xffffffff, 2); // the sum would overflow
    EXPECT_EQ(table.take(), calls{cut_range("int")});
    EXPECT_EQ(values(array), (std::vector{0, 1}));
    array.RemoveAt(1, 0xffffffff);
    EXPECT_EQ(table.take(), calls{cut_range("int")});
    EXPECT_EQ(values(array), (std::vector{0}));
}

TEST(array, a_cut_range_destroys_what_it_takes_out) {
    int alive = 0;
    const recording_table table;
    zetArray<counted> array;
    for (int i = 0; i < 4; ++i)
        array.Append(counted(i, alive));
    array.RemoveAt(3, 100);
    EXPECT_EQ(alive, 3);
    array.RemoveAt(100, 1);
    EXPECT_EQ(alive, 3);
}

TEST(array, names_its_element_type_in_reports) {
    recording_table table;
    zetArray<qorString> array;
    array.RemoveAt(0, 1);
    EXPECT_EQ(table.take(), calls{cut_range("qorString")});
    zetArray<qorErrorClass> others;
    others.RemoveAt(0, 1);
    EXPECT_EQ(table.take(), calls{cut_range("qorErrorClass")});
}

TEST(array, an_index_is_checked_by_the_vector) {
    recording_table table;
    zetArray<int> array;
    array.Append(7);
    array.Append(8);
    array.RemoveAt(1, 1);
    EXPECT_EQ(&array[1], &array[0] + 1);
    EXPECT_EQ(table.take(), calls{qor::test::assertion("index < m_data.count", "void* qorVector::ptr(uint32)",
                                                       "qorcore/include/qor/system/Vector", 84)});
}

TEST(array, is_silent_without_a_table) {
    recording_table table;
    zetArray<int> array;
    // Even a truncated range calls the library to close the gap; an index does not.
    array.Append(7);
    EXPECT_TRUE(table.unbound([&] { EXPECT_EQ(&array[1], &array[0] + 1); }));
    EXPECT_EQ(table.take(), calls{});
}

} // namespace
