// Numbers of texts: what has one keeps it or gets another one, and no number ever stands for two texts.
#include "heap/log/text_numbers.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>

namespace {

using namespace qor::heap;

using text_numbers::giver;
using text_numbers::none;
using text_numbers::taker;

std::string caller(int number) { return "/usr/bin/application:[0x" + std::to_string(1000000 + number) + "]"; }

TEST(text_numbers, a_text_that_is_known_keeps_its_number) {
    giver numbers(0);
    std::set<uint32> given;
    for (int round = 0; round < 3; ++round)
        for (int i = 0; i < 1000; ++i)
            given.insert(numbers.of(caller(i)));
    EXPECT_EQ(given.size(), 1000u);
    EXPECT_FALSE(given.contains(none));
}

TEST(text_numbers, neither_empty_nor_huge_ones_have_one) {
    giver numbers(0);
    EXPECT_EQ(numbers.of(""), none);
    for (const std::size_t size : {1, 7, 8, 15, 16, 17})
        EXPECT_NE(numbers.of(std::string(size, 'x')), none);
    EXPECT_NE(numbers.of(std::string(4096, 'x')), none);
    EXPECT_EQ(numbers.of(std::string(4097, 'x')), none);
}

// Of every length, with all but one byte alike: each byte counts.
TEST(text_numbers, texts_that_are_nearly_alike) {
    giver numbers(0);
    std::map<uint32, std::string> known;
    for (std::size_t size = 1; size < 80; ++size)
        for (std::size_t changed = 0; changed <= size; ++changed) {
            std::string text(size, 'a');
            if (changed < size)
                text[changed] = 'b';
            if (const uint32 number = numbers.of(text)) {
                EXPECT_EQ(known.emplace(number, text).first->second, text);
            }
        }
    EXPECT_GT(known.size(), 8u * 79u);
}

// More of them than are remembered, of all sizes, by both who give numbers out.
TEST(text_numbers, no_number_stands_for_two_texts) {
    std::mt19937 random(7);
    giver givers[] = {giver(0), giver(1)};
    taker meanings;
    std::map<uint32, std::string> known;
    for (int i = 0; i < 400'000; ++i) {
        const int which = static_cast<int>(random() % (i % 50'000 < 25'000 ? 300 : 100'000));
        const std::string text = caller(which) + std::string(which % 512, 'x');
        const uint32 number = givers[random() % 2].of(text);
        if (number != none) {
            ASSERT_EQ(known.emplace(number, text).first->second, text);
        }
        const uint32 meaning = static_cast<uint32>(which);
        ASSERT_EQ(meanings.of(number, 0, [=] { return meaning; }), meaning);
    }
}

// Callers that are written to collide: most have no number, and none is looked for long.
TEST(text_numbers, texts_that_collide) {
    giver numbers(0);
    unsigned without = 0;
    for (int round = 0; round < 2; ++round)
        for (int i = 0; i < 1000; ++i)
            without += numbers.of(std::to_string(1000000 + i) + "the same sixteen bytes") == none;
    EXPECT_EQ(without, 2u * (1000 - 8));
}

TEST(text_numbers, what_is_remembered_is_not_asked_for_again) {
    taker meanings;
    int asked = 0;
    const auto meaning = [&asked] { return static_cast<uint32>(++asked); };
    EXPECT_EQ(meanings.of(none, 0, meaning), 1u);
    EXPECT_EQ(meanings.of(none, 0, meaning), 2u);
    EXPECT_EQ(meanings.of(5, 0, meaning), 3u);
    EXPECT_EQ(meanings.of(5, 0, meaning), 3u);
    meanings.forget();
    EXPECT_EQ(meanings.of(5, 0, meaning), 4u);
    EXPECT_EQ(meanings.of(5 + text_numbers::givers * text_numbers::limit, 0, meaning), 5u);
    EXPECT_EQ(meanings.of(5, 0, meaning), 6u);
    EXPECT_EQ(meanings.of(5, 1, meaning), 7u);
    EXPECT_EQ(meanings.of(5, 1, meaning), 7u);
    EXPECT_EQ(meanings.of(5, 0, meaning), 8u);
}

} // namespace
