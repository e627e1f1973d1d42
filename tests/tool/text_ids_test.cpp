// Ids of texts: a text may get a new id, but an id never belongs to two texts.
#include "heap/log/text_ids.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>

namespace {

using namespace qor::heap;

using text_ids::assigner;
using text_ids::cache;
using text_ids::none;

std::string caller(int number) { return "/usr/bin/application:[0x" + std::to_string(1000000 + number) + "]"; }

TEST(text_ids, a_text_that_is_known_keeps_its_id) {
    assigner ids(0);
    std::set<uint32> assigned;
    for (int round = 0; round < 3; ++round)
        for (int i = 0; i < 1000; ++i)
            assigned.insert(ids.of(caller(i)));
    EXPECT_EQ(assigned.size(), 1000u);
    EXPECT_FALSE(assigned.contains(none));
}

TEST(text_ids, neither_empty_nor_huge_ones_have_one) {
    assigner ids(0);
    EXPECT_EQ(ids.of(""), none);
    for (const std::size_t size : {1, 7, 8, 15, 16, 17})
        EXPECT_NE(ids.of(std::string(size, 'x')), none);
    EXPECT_NE(ids.of(std::string(4096, 'x')), none);
    EXPECT_EQ(ids.of(std::string(4097, 'x')), none);
}

// Texts of every length that differ in one byte: every byte counts.
TEST(text_ids, texts_that_are_nearly_alike) {
    assigner ids(0);
    std::map<uint32, std::string> known;
    for (std::size_t size = 1; size < 80; ++size)
        for (std::size_t changed = 0; changed <= size; ++changed) {
            std::string text(size, 'a');
            if (changed < size)
                text[changed] = 'b';
            if (const uint32 id = ids.of(text)) {
                EXPECT_EQ(known.emplace(id, text).first->second, text);
            }
        }
    EXPECT_GT(known.size(), 8u * 79u);
}

// More texts than are remembered, of all sizes, from both assigners.
TEST(text_ids, no_id_stands_for_two_texts) {
    std::mt19937 random(7);
    assigner assigners[] = {assigner(0), assigner(1)};
    cache meanings;
    std::map<uint32, std::string> known;
    for (int i = 0; i < 400'000; ++i) {
        const int which = static_cast<int>(random() % (i % 50'000 < 25'000 ? 300 : 100'000));
        const std::string text = caller(which) + std::string(which % 512, 'x');
        const uint32 id = assigners[random() % 2].of(text);
        if (id != none) {
            ASSERT_EQ(known.emplace(id, text).first->second, text);
        }
        const uint32 meaning = static_cast<uint32>(which);
        ASSERT_EQ(meanings.of(id, 0, [=] { return meaning; }), meaning);
    }
}

// Callers that were chosen to collide: most get no id, and no search is long.
TEST(text_ids, texts_that_collide) {
    assigner ids(0);
    unsigned without = 0;
    for (int round = 0; round < 2; ++round)
        for (int i = 0; i < 1000; ++i)
            without += ids.of(std::to_string(1000000 + i) + "the same sixteen bytes") == none;
    EXPECT_EQ(without, 2u * (1000 - 8));
}

TEST(text_ids, what_is_remembered_is_not_asked_for_again) {
    cache meanings;
    int asked = 0;
    const auto meaning = [&asked] { return static_cast<uint32>(++asked); };
    EXPECT_EQ(meanings.of(none, 0, meaning), 1u);
    EXPECT_EQ(meanings.of(none, 0, meaning), 2u);
    EXPECT_EQ(meanings.of(5, 0, meaning), 3u);
    EXPECT_EQ(meanings.of(5, 0, meaning), 3u);
    meanings.forget();
    EXPECT_EQ(meanings.of(5, 0, meaning), 4u);
    EXPECT_EQ(meanings.of(5 + text_ids::assigners * text_ids::limit, 0, meaning), 5u);
    EXPECT_EQ(meanings.of(5, 0, meaning), 6u);
    EXPECT_EQ(meanings.of(5, 1, meaning), 7u);
    EXPECT_EQ(meanings.of(5, 1, meaning), 7u);
    EXPECT_EQ(meanings.of(5, 0, meaning), 8u);
}

} // namespace
