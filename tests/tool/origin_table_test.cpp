#include "origin_table.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <tuple>

namespace {

TEST(OriginTable, KnowsNothingOfNumberZero) {
    const origin_table table;
    const origin_table::origin nothing = table.get(0);
    EXPECT_TRUE(nothing.caller.empty() && nothing.type_name.empty() && nothing.file.empty());
    EXPECT_EQ(nothing.line, 0);
    EXPECT_EQ(nothing.type, 0);
}

TEST(OriginTable, KeepsEachCombinationOnce) {
    using key = std::tuple<std::string, std::string, std::string, int32, uint8>;
    std::mt19937 random(3);
    origin_table table;
    std::map<key, uint32> numbers;
    // Texts of every length around the eight bytes that are hashed at a time, with NULs in them.
    const auto text = [&random] {
        std::string made;
        for (unsigned length = random() % 20; length != 0; --length)
            made += static_cast<char>(random() % 3);
        return made;
    };
    for (int round = 0; round < 50000; ++round) {
        const key wanted{text(), random() % 2 ? text() : "", random() % 2 ? text() : "",
                         static_cast<int32>(random() % 5) - 2, static_cast<uint8>(random() % 3)};
        const auto& [caller, type_name, file, line, type] = wanted;
        const uint32 number = table.of({caller, type_name, file, line, type});
        const auto [known, is_new] = numbers.emplace(wanted, number);
        ASSERT_EQ(known->second, number) << (is_new ? "new" : "known");
    }
    std::map<uint32, key> unique;
    for (const auto& [wanted, number] : numbers) {
        ASSERT_TRUE(unique.emplace(number, wanted).second) << "two origins have one number";
        const origin_table::origin found = table.get(number);
        ASSERT_EQ(key(found.caller, found.type_name, found.file, found.line, found.type), wanted);
        ASSERT_EQ(found.caller.data()[found.caller.size()], '\0');
    }
}

TEST(OriginTable, ACallerAloneIsTheOriginWithNothingElse) {
    origin_table table;
    for (int i = 0; i < 1000; ++i) {
        const std::string caller = "caller" + std::to_string(i % 100);
        const uint32 number = table.of_caller(caller);
        EXPECT_EQ(number, table.of({caller, {}, {}, 0, 0}));
        EXPECT_EQ(table.get(number).caller, caller);
    }
}

TEST(OriginTable, TextsStayWhereTheyAre) {
    origin_table table;
    const std::string large(100'000, 'x'); // larger than a piece
    const char* const first = table.get(table.of_caller("first")).caller.data();
    const char* const kept = table.get(table.of_caller(large)).caller.data();
    for (int i = 0; i < 20000; ++i)
        table.of_caller("caller" + std::to_string(i));
    EXPECT_EQ(table.get(table.of_caller("first")).caller.data(), first);
    EXPECT_EQ(table.get(table.of_caller(large)).caller.data(), kept);
    EXPECT_EQ(std::string(kept), large);
}

} // namespace
