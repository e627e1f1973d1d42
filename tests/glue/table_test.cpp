// The table as the library hands it out.
#include "qor/qor.h"

#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>

namespace {

using qor::glue::binding_table;

// The numbers and signatures that never change, whatever slots.def says.
#define FIXED(number, op, signature)                                                                         \
    static_assert(offsetof(binding_table, op) == (number) * sizeof(void*));                                  \
    static_assert(std::is_same_v<decltype(binding_table::op), signature>)

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

const void* entry(const binding_table& table, uint32 number) {
    const void* result;
    std::memcpy(&result, reinterpret_cast<const char*>(&table) + number * sizeof result, sizeof result);
    return result;
}

TEST(Table, HoldsAllThatIsWrittenAndNothingElse) {
    const binding_table& table = *qor::glue::table();
    uint32 covered = 0;
#define QOR_SLOT(number, result, op, parameters, arguments)                                                  \
    EXPECT_NE(entry(table, number), nullptr) << #op;                                                         \
    covered += 1;
#define QOR_RESERVED(number, op)                                                                             \
    EXPECT_EQ(entry(table, number), nullptr) << #op;                                                         \
    covered += 1;
#define QOR_ROOM(first, count)                                                                               \
    for (uint32 i = 0; i < (count); ++i)                                                                     \
        EXPECT_EQ(entry(table, (first) + i), nullptr) << (first) + i;                                        \
    covered += (count);
#include "qor/glue/slots.def"
#undef QOR_SLOT
#undef QOR_RESERVED
#undef QOR_ROOM
    EXPECT_EQ(covered, qor::glue::slot_count);
}

TEST(Table, IsTheSameHoweverOftenItIsFetched) {
    const binding_table* const first = qor::glue::table();
    EXPECT_EQ(qor::glue::bind(), first);
    EXPECT_EQ(qor::glue::s_funcs.load(), first);
}

} // namespace
