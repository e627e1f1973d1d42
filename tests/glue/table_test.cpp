// The table that the library hands out.
#include "qor/glue/module.h"
#include "qor/qor.h"
#include "support/fenced_memory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>

namespace {

using qor::glue::binding_table;

// The numbers and signatures that never change, whatever slots.def contains.
#define FIXED(number, op, signature)                                                                                   \
    static_assert(offsetof(binding_table, op) == (number) * sizeof(void*));                                            \
    static_assert(std::is_same_v<decltype(binding_table::op), signature>)

FIXED(0, qorGetTableLength, uint32 (*)() noexcept);
FIXED(2, qorCleanup, void (*)() noexcept);
FIXED(27, qorDebugAllocateCode, uint32 (*)(const char*) noexcept);
FIXED(33, qorAssertFailed, void (*)(const char*, const char*, const char*, int) noexcept);
FIXED(38, qorString_Init, void (*)(qorString*, unsigned) noexcept);
FIXED(41, qorString_Set, void (*)(qorString*, const char*, unsigned) noexcept);
FIXED(84, qorStringArray_Init, void (*)(qorStringArray*) noexcept);
FIXED(85, qorStringArray_Empty, void (*)(qorStringArray*) noexcept);
FIXED(458, qorInitProcess, bool (*)(const char*, qorStringArray&, unsigned) noexcept);
FIXED(549, qor_do_malloc, void* (*)(uint64, uint64, bool, const char*, int) noexcept);
FIXED(551, qor_do_free, void (*)(void*, const char*, int) noexcept);
#undef FIXED

void put(binding_table& table, uint32 number, const void* value) {
    std::memcpy(reinterpret_cast<char*>(&table) + number * sizeof value, &value, sizeof value);
}

const void* entry(const binding_table& table, uint32 number) {
    const void* result;
    std::memcpy(&result, reinterpret_cast<const char*>(&table) + number * sizeof result, sizeof result);
    return result;
}

// The rows of slots.def as data: checks in a loop compile in a tenth of the time of one check per row.
struct row {
    uint32 number;
    uint32 count;
    const char* op;
    bool written;
};
constexpr row rows[] = {
#define QOR_SLOT(number, result, op, parameters, arguments) {number, 1, #op, true},
#define QOR_RESERVED(number, op) {number, 1, #op, false},
#define QOR_FREE(first, count) {first, count, "free", false},
#include "qor/glue/slots.def"
#undef QOR_SLOT
#undef QOR_RESERVED
#undef QOR_FREE
};

TEST(table, holds_all_that_is_written_and_nothing_else) {
    const binding_table& table = *qor::glue::table();
    uint32 covered = 0;
    for (const row& each : rows)
        for (uint32 i = 0; i < each.count; ++i, ++covered)
            EXPECT_EQ(entry(table, each.number + i) != nullptr, each.written) << each.op << ' ' << each.number + i;
    EXPECT_EQ(covered, qor::glue::slot_count);
}

TEST(table, tells_its_version) {
    EXPECT_STREQ(qorGetLibraryVersion(), QOR_VERSION);
    EXPECT_STREQ(qor::glue::client.version, QOR_VERSION);
    static_assert(QOR_VERSION_NUMBER == QOR_MAKE_VERSION(QOR_VERSION_MAJOR, QOR_VERSION_MINOR, QOR_VERSION_PATCH));
    static_assert(QOR_VERSION_NUMBER < QOR_MAKE_VERSION(QOR_VERSION_MAJOR, QOR_VERSION_MINOR + 1, 0));
}

TEST(table, tells_its_length) { EXPECT_EQ(qor::glue::qorGetTableLength(), qor::glue::slot_count); }

TEST(table, is_sufficient_with_every_written_operation) {
    binding_table table = *qor::glue::table();
    EXPECT_TRUE(qor::glue::is_sufficient(table));
    const auto without = [&table](uint32 number) {
        const void* const kept = entry(table, number);
        put(table, number, nullptr);
        const bool sufficient = qor::glue::is_sufficient(table);
        put(table, number, kept);
        return sufficient;
    };
    for (const row& each : rows)
        EXPECT_EQ(without(each.number), !each.written) << each.op;
}

TEST(table, is_sufficient_where_it_is_longer) {
    binding_table table = *qor::glue::table();
    table.qorGetTableLength = []() noexcept -> uint32 { return qor::glue::slot_count + 1; };
    EXPECT_TRUE(qor::glue::is_sufficient(table));
    table.qorGetTableLength = []() noexcept -> uint32 { return qor::glue::slot_count - 1; };
    EXPECT_FALSE(qor::glue::is_sufficient(table));
    table.qorGetTableLength = []() noexcept -> uint32 { return 0; };
    EXPECT_FALSE(qor::glue::is_sufficient(table));
}

TEST(table, is_not_read_behind_its_length) {
    using length = uint32 (*)() noexcept;
    const length one = []() noexcept -> uint32 { return 1; };
    const qor::test::fenced_memory memory(sizeof one);
    std::memcpy(memory.end() - sizeof one, &one, sizeof one);
    EXPECT_FALSE(qor::glue::is_sufficient(*reinterpret_cast<const binding_table*>(memory.end() - sizeof one)));
}

TEST(table, a_module_takes_none_that_is_insufficient) {
    const binding_table* const real = qor::glue::table();
    binding_table table = *real;
    table.qorCleanup = nullptr;
    EXPECT_FALSE(qor::glue::bind_module(&table));
    EXPECT_FALSE(qor::glue::bind_module(nullptr));
    EXPECT_EQ(qor::glue::s_funcs.load(), real);
    EXPECT_TRUE(qor::glue::bind_module(real));
}

TEST(table, is_the_same_however_often_it_is_fetched) {
    const binding_table* const first = qor::glue::table();
    EXPECT_EQ(qor::glue::bind(), first);
    EXPECT_EQ(qor::glue::s_funcs.load(), first);
}

} // namespace
