#include "memory/live_blocks.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace {

using qor::memory::block_type;
using qor::memory::live_block;
using qor::memory::live_blocks;

const void* at(std::uintptr_t address) { return reinterpret_cast<const void*>(address); }

std::vector<const void*> addresses(const live_blocks& blocks) {
    std::vector<const void*> result;
    for (const live_block& each : blocks.in_order())
        result.push_back(each.address);
    return result;
}

using list = std::vector<const void*>;

} // namespace

TEST(live_blocks, a_block_is_found_as_it_was_added) {
    live_blocks blocks;
    EXPECT_EQ(blocks.find(at(0x10)), nullptr);
    blocks.add(at(0x10), 48, block_type::object, "file", 7);
    const live_block* const found = blocks.find(at(0x10));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->address, at(0x10));
    EXPECT_EQ(found->size, 48u);
    EXPECT_EQ(found->type, block_type::object);
    EXPECT_STREQ(found->file, "file");
    EXPECT_EQ(found->line, 7);
    EXPECT_EQ(found->type_name, nullptr);
    EXPECT_EQ(blocks.find(at(0x11)), nullptr);
}

TEST(live_blocks, the_oldest_comes_first) {
    live_blocks blocks;
    for (const std::uintptr_t address : {0x50, 0x10, 0x40, 0x20})
        blocks.add(at(address), 1, block_type::memory, "f", 1);
    EXPECT_EQ(addresses(blocks), (list{at(0x50), at(0x10), at(0x40), at(0x20)}));
    blocks.remove(at(0x10));
    blocks.add(at(0x10), 1, block_type::memory, "f", 1);
    EXPECT_EQ(addresses(blocks), (list{at(0x50), at(0x40), at(0x20), at(0x10)}));
}

TEST(live_blocks, an_address_holds_one_block) {
    live_blocks blocks;
    blocks.add(at(0x10), 1, block_type::memory, "old", 1);
    blocks.find(at(0x10))->type_name = "name";
    blocks.add(at(0x10), 2, block_type::huge, "new", 2);
    EXPECT_EQ(addresses(blocks), list{at(0x10)});
    EXPECT_EQ(blocks.find(at(0x10))->size, 2u);
    EXPECT_EQ(blocks.find(at(0x10))->type_name, nullptr);
}

TEST(live_blocks, removing_a_stranger_changes_nothing) {
    live_blocks blocks;
    blocks.add(at(0x10), 1, block_type::memory, "f", 1);
    blocks.remove(at(0x20));
    EXPECT_EQ(addresses(blocks), list{at(0x10)});
    blocks.clear();
    EXPECT_EQ(addresses(blocks), list{});
    EXPECT_EQ(blocks.find(at(0x10)), nullptr);
}

TEST(live_blocks, many_comings_and_goings) {
    std::mt19937 random(4711);
    live_blocks blocks;
    std::map<std::uintptr_t, uint64> model;
    std::map<uint64, std::uintptr_t> by_age;
    for (uint64 round = 1; round < 50000; ++round) {
        const std::uintptr_t address = 16 * (1 + random() % 3000);
        if (const auto old = model.find(address); old != model.end()) {
            by_age.erase(old->second);
            model.erase(old);
            blocks.remove(at(address));
        } else {
            model[address] = round;
            by_age[round] = address;
            ASSERT_TRUE(blocks.make_room());
            blocks.add(at(address), round, block_type::memory, "f", 1);
        }
    }
    list expected;
    for (const auto& [age, address] : by_age) {
        expected.push_back(at(address));
        ASSERT_EQ(blocks.find(at(address))->size, age);
    }
    EXPECT_EQ(addresses(blocks), expected);
}
