#include "heap/origin/origin_table.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <tuple>

namespace {

using namespace qor::heap;

TEST(origin_table, knows_nothing_of_number_zero) {
    const origin_table table;
    EXPECT_EQ(table.get(0), origin_table::origin{});
    EXPECT_EQ(table.printed(0), "");
}

TEST(origin_table, keeps_each_combination_once) {
    using key = std::tuple<std::string, std::string, std::string, int32, uint8>;
    std::mt19937 random(3);
    origin_table table;
    std::map<key, uint32> numbers;
    // Texts of every length around the eight bytes that are hashed at a time, some with NULs.
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
        const uint32 number = table.of({table.text(caller), table.text(type_name), table.text(file), line, type});
        const auto [known, is_new] = numbers.emplace(wanted, number);
        ASSERT_EQ(known->second, number) << (is_new ? "new" : "known");
    }
    std::map<uint32, key> unique;
    for (const auto& [wanted, number] : numbers) {
        ASSERT_TRUE(unique.emplace(number, wanted).second) << "two origins have one number";
        const origin_table::origin& found = table.get(number);
        const auto& [caller, type_name, file, line, type] = wanted;
        ASSERT_EQ(table.printed(found.caller), caller.c_str());
        ASSERT_EQ(table.printed(found.type_name), type_name.c_str());
        ASSERT_EQ(table.printed(found.file), file.c_str());
        ASSERT_EQ(found.line, line);
        ASSERT_EQ(found.type, type);
    }
}

TEST(origin_table, a_caller_alone_is_the_origin_with_nothing_else) {
    origin_table table;
    for (int i = 0; i < 1000; ++i) {
        const std::string caller = "caller" + std::to_string(i % 100);
        const uint32 number = table.of_caller(caller);
        EXPECT_EQ(number, table.of({table.text(caller), 0, 0, 0, 0}));
        EXPECT_EQ(table.printed(table.get(number).caller), caller);
    }
}

std::string_view caller_of(const origin_table& table, uint32 number) { return table.printed(table.get(number).caller); }

TEST(origin_table, texts_stay_where_they_are) {
    origin_table table;
    const std::string large(100'000, 'x'); // larger than a chunk
    const std::string_view first = caller_of(table, table.of_caller("first"));
    const std::string_view kept = caller_of(table, table.of_caller(large));
    for (int i = 0; i < 20000; ++i)
        table.of_caller("caller" + std::to_string(i));
    EXPECT_EQ(caller_of(table, table.of_caller("first")).data(), first.data());
    EXPECT_EQ(caller_of(table, table.of_caller(large)).data(), kept.data());
    EXPECT_EQ(kept, large);
}

TEST(origin_table, adopts_from_another_table) {
    origin_table old;
    for (int i = 0; i < 1000; ++i)
        old.of_caller("caller" + std::to_string(i));
    const uint32 number = old.of({old.text("caller7"), old.text("Type"), old.text("a\0b"), -3, 5});
    origin_table table;
    const uint32 adopted = table.adopt(old, number);
    EXPECT_EQ(table.adopt(old, number), adopted);
    EXPECT_EQ(adopted, table.of({table.text("caller7"), table.text("Type"), table.text("a\0b"), -3, 5}));
    EXPECT_EQ(table.adopt_text(old, old.text("Type")), table.text("Type"));
    EXPECT_LT(table.bytes(), old.bytes());
}

} // namespace
