#include "support/recording_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

namespace {

using qor::test::assertion;
using qor::test::recording_table;
using calls = std::vector<std::string>;

const std::string beyond_the_end =
    assertion("index < m_data.count", "void* qorVector::ptr(uint32)", "qorcore/include/qor/system/Vector", 84);

void append(qorVector& vector, std::initializer_list<int> values) {
    void* const room = vector.Append(static_cast<unsigned>(values.size()));
    std::memcpy(room, values.begin(), values.size() * sizeof(int));
}

std::vector<int> content(qorVector& vector) {
    std::vector<int> values;
    for (uint32 i = 0; i < vector.GetCount(); ++i)
        values.push_back(*static_cast<int*>(vector.ptr(i)));
    return values;
}

TEST(vector, is_a_pointer_and_three_numbers) {
    static_assert(sizeof(qorVector) == 3 * sizeof(void*));
    static_assert(offsetof(qorVector, m_data) == 0);
    using data = decltype(qorVector::m_data);
    static_assert(offsetof(data, elements) == 0 && offsetof(data, count) == sizeof(void*));
    static_assert(offsetof(data, chunk_size) == sizeof(void*) + 4 && offsetof(data, alloc) == sizeof(void*) + 8);
    const qorVector vector(24);
    EXPECT_EQ(vector.m_data.elements, nullptr);
    EXPECT_EQ(vector.m_data.count, 0u);
    EXPECT_EQ(vector.m_data.chunk_size, 24u);
    EXPECT_EQ(vector.m_data.alloc, 0u);
}

TEST(vector, appends_inserts_and_collapses) {
    recording_table table;
    qorVector vector(sizeof(int));
    append(vector, {1, 2, 3});
    *static_cast<int*>(vector.Insert(1, 1)) = 9;
    EXPECT_EQ(content(vector), (std::vector{1, 9, 2, 3}));
    EXPECT_EQ(vector.ptr(2), vector.m_data.elements + 2 * sizeof(int));
    vector.Collapse(0, 2);
    EXPECT_EQ(content(vector), (std::vector{2, 3}));
    vector.Collapse(1, 1);
    vector.Collapse(0, 1);
    EXPECT_EQ(vector.GetCount(), 0u);
    EXPECT_EQ(table.take(), calls{});
}

TEST(vector, nothing_added_is_the_address_behind_the_last_element) {
    qorVector vector(sizeof(int));
    EXPECT_EQ(vector.Append(0), nullptr);
    append(vector, {1, 2});
    EXPECT_EQ(vector.Append(0), vector.m_data.elements + 2 * sizeof(int));
    EXPECT_EQ(vector.GetCount(), 2u);
}

TEST(vector, ranges_are_cut_at_the_end) {
    qorVector vector(sizeof(int));
    append(vector, {1, 2, 3});
    vector.Collapse(3, 5);
    vector.Collapse(0xffffffff, 0xffffffff);
    EXPECT_EQ(content(vector), (std::vector{1, 2, 3}));
    *static_cast<int*>(vector.Insert(100, 1)) = 4;
    EXPECT_EQ(content(vector), (std::vector{1, 2, 3, 4}));
    vector.Collapse(1, 0xffffffff);
    EXPECT_EQ(content(vector), (std::vector{1}));
}

TEST(vector, empty_frees_the_elements_and_keeps_their_size) {
    qorVector vector(sizeof(int));
    append(vector, {1, 2, 3});
    vector.Empty();
    EXPECT_EQ(vector.m_data.elements, nullptr);
    EXPECT_EQ(vector.m_data.count, 0u);
    EXPECT_EQ(vector.m_data.alloc, 0u);
    append(vector, {7});
    EXPECT_EQ(content(vector), (std::vector{7}));
}

TEST(vector, makes_room_ahead_and_then_stays_where_it_is) {
    qorVector vector(sizeof(int));
    vector.SetAlloc(1000);
    EXPECT_GE(vector.m_data.alloc, 1000u);
    EXPECT_EQ(vector.GetCount(), 0u);
    const void* const place = vector.m_data.elements;
    for (int i = 0; i < 1000; ++i)
        append(vector, {i});
    EXPECT_EQ(vector.m_data.elements, place);
    vector.SetAlloc(10);
    EXPECT_GE(vector.m_data.alloc, 1000u);
    EXPECT_EQ(vector.GetCount(), 1000u);
}

TEST(vector, detach_gives_the_elements_away_and_keeps_their_size) {
    qorVector vector(sizeof(int));
    append(vector, {1, 2});
    void* const elements = vector.m_data.elements;
    vector.Detach();
    EXPECT_EQ(vector.m_data.elements, nullptr);
    EXPECT_EQ(vector.m_data.count, 0u);
    EXPECT_EQ(vector.m_data.alloc, 0u);
    EXPECT_EQ(vector.m_data.chunk_size, sizeof(int));
    append(vector, {3});
    EXPECT_EQ(content(vector), (std::vector{3}));
    EXPECT_EQ(*static_cast<int*>(elements), 1);
    qor_do_free(elements, "test", 1);
}

TEST(vector, steals_the_elements_of_another) {
    recording_table table;
    qorVector thief(sizeof(int)), victim(sizeof(int));
    append(thief, {1});
    append(victim, {2, 3});
    const void* const elements = victim.m_data.elements;
    const uint32 alloc = victim.m_data.alloc;
    EXPECT_EQ(thief.StealVectorData(victim), 2u);
    EXPECT_EQ(thief.m_data.elements, elements);
    EXPECT_EQ(thief.m_data.alloc, alloc);
    EXPECT_EQ(content(thief), (std::vector{2, 3}));
    EXPECT_EQ(victim.m_data.elements, nullptr);
    EXPECT_EQ(victim.m_data.count, 0u);
    EXPECT_EQ(victim.m_data.alloc, 0u);
    EXPECT_EQ(victim.m_data.chunk_size, sizeof(int));
    EXPECT_EQ(thief.StealVectorData(victim), 0u);
    EXPECT_EQ(thief.GetCount(), 0u);
    EXPECT_EQ(table.take(), calls{});
}

TEST(vector, stealing_elements_of_another_size_is_reported_and_done) {
    recording_table table;
    qorVector thief(1), victim(sizeof(int));
    append(victim, {2, 3});
    const void* const elements = victim.m_data.elements;
    EXPECT_EQ(thief.StealVectorData(victim), 2u);
    EXPECT_EQ(table.take(), calls{assertion("m_data.chunk_size == src.m_data.chunk_size",
                                            "void qorVector::StealVectorData(qorVector&)",
                                            "qorcore/include/qor/glue/impl_common", 1774)});
    EXPECT_EQ(thief.m_data.elements, elements);
    EXPECT_EQ(thief.m_data.count, 2u);
    EXPECT_EQ(thief.m_data.chunk_size, 1u);
    EXPECT_EQ(victim.m_data.elements, nullptr);
}

TEST(vector, an_index_beyond_the_end_is_reported_and_its_address_returned) {
    recording_table table;
    qorVector vector(sizeof(int));
    EXPECT_EQ(vector.ptr(0), nullptr);
    EXPECT_EQ(table.take(), calls{beyond_the_end});
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(vector.ptr(3)), 3 * sizeof(int));
    EXPECT_EQ(table.take(), calls{beyond_the_end});
    append(vector, {1, 2});
    EXPECT_EQ(vector.ptr(1), vector.m_data.elements + sizeof(int));
    EXPECT_EQ(table.take(), calls{});
    EXPECT_EQ(vector.ptr(2), vector.m_data.elements + 2 * sizeof(int));
    EXPECT_EQ(table.take(), calls{beyond_the_end});
    EXPECT_EQ(std::as_const(vector).ptr(2), vector.m_data.elements + 2 * sizeof(int));
    EXPECT_EQ(table.take(), calls{beyond_the_end});
}

TEST(vector, is_silent_without_a_table) {
    recording_table table;
    qorVector vector(sizeof(int));
    EXPECT_TRUE(table.unbound([&] { EXPECT_EQ(vector.ptr(0), nullptr); }));
    EXPECT_EQ(table.take(), calls{});
}

TEST(vector, without_memory_stays_as_it_was) {
    qorVector vector(0x10000);
    std::memset(vector.Append(1), 7, 0x10000);
    EXPECT_THROW(vector.Append(0xffffffff), std::bad_alloc);
    EXPECT_THROW(vector.Insert(0, 0xfffffff0), std::bad_alloc);
    EXPECT_EQ(vector.GetCount(), 1u);
    EXPECT_EQ(*static_cast<unsigned char*>(vector.ptr(0)), 7);
}

// Long random runs, compared with a plain model.
TEST(vector, does_what_a_plain_vector_does) {
    std::mt19937 random(1);
    qorVector vector(sizeof(int));
    std::vector<int> model;
    int next = 0;
    for (int step = 0; step < 20000; ++step) {
        const auto size = static_cast<uint32>(model.size());
        const uint32 index = random() % (size + 1);
        const uint32 count = random() % 8;
        switch (random() % 8) {
        case 0:
        case 1:
        case 2: {
            std::vector<int> fresh(count);
            std::generate(fresh.begin(), fresh.end(), [&] { return next++; });
            void* const room = vector.Append(count);
            if (count != 0)
                std::memcpy(room, fresh.data(), count * sizeof(int));
            model.insert(model.end(), fresh.begin(), fresh.end());
            break;
        }
        case 3:
        case 4: {
            std::vector<int> fresh(count);
            std::generate(fresh.begin(), fresh.end(), [&] { return next++; });
            void* const room = vector.Insert(index, count);
            if (count != 0)
                std::memcpy(room, fresh.data(), count * sizeof(int));
            model.insert(model.begin() + index, fresh.begin(), fresh.end());
            break;
        }
        case 5:
        case 6:
            vector.Collapse(index, count);
            model.erase(model.begin() + index, model.begin() + index + std::min(count, size - index));
            break;
        default:
            if (random() % 50 == 0) {
                vector.Empty();
                model.clear();
            } else {
                vector.SetAlloc(size + count);
            }
        }
        ASSERT_EQ(vector.GetCount(), model.size()) << "step " << step;
        ASSERT_GE(vector.m_data.alloc, vector.GetCount()) << "step " << step;
        ASSERT_EQ(content(vector), model) << "step " << step;
    }
}

} // namespace
