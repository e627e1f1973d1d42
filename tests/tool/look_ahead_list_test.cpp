// The list, compared with a plain one that is searched from the front.
#include "heap/table/look_ahead_list.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

using namespace qor::heap;

struct both_lists {
    look_ahead_list<uint32> list;
    std::vector<look_ahead_list<uint32>::record> plain;

    void append(uint64 address, uint32 size) {
        look_ahead_list<uint32>::record added;
        added.address = address;
        added.size = size;
        list.append(added);
        plain.push_back(added);
    }

    void take(uint64 address) {
        const auto found =
            std::find_if(plain.begin(), plain.end(), [address](const auto& each) { return each.address == address; });
        look_ahead_list<uint32>::record taken;
        ASSERT_EQ(list.take(address, taken), found != plain.end());
        if (found == plain.end())
            return;
        ASSERT_EQ(taken.address, address);
        ASSERT_EQ(taken.size, found->size);
        plain.erase(found);
    }

    void compare() {
        ASSERT_EQ(list.count(), plain.size());
        ASSERT_EQ(list.is_empty(), plain.empty());
        ASSERT_EQ(list.is_full(), plain.size() == 1024);
        std::size_t at = 0;
        list.walk([&](const look_ahead_list<uint32>::record& each) {
            ASSERT_LT(at, plain.size());
            ASSERT_EQ(each.address, plain[at].address);
            ASSERT_EQ(each.size, plain[at].size);
            ++at;
        });
        ASSERT_EQ(at, plain.size());
    }
};

TEST(look_ahead_list, agrees_with_a_plain_list) {
    for (unsigned seed = 0; seed < 8; ++seed) {
        std::mt19937 random(seed);
        const unsigned addresses = seed % 2 == 0 ? 20 : 3000;
        both_lists lists;
        for (uint32 step = 0; step < 6000; ++step) {
            // The list fills up, empties, and fills up again.
            const bool growing = step / 2000 % 2 == 0;
            if (!lists.list.is_full() && random() % 10 < (growing ? 8u : 2u))
                lists.append(random() % addresses, step);
            else
                lists.take(random() % addresses);
            if (step % 50 == 0)
                lists.compare();
            if (HasFatalFailure())
                return;
        }
    }
}

TEST(look_ahead_list, holds_a_thousand_and_twenty_four_records_of_one_address) {
    both_lists lists;
    for (uint32 i = 0; i < 1024; ++i)
        lists.append(7, i);
    EXPECT_TRUE(lists.list.is_full());
    lists.take(8);
    for (uint32 i = 0; i < 1024; ++i)
        lists.take(7);
    lists.compare();
    EXPECT_TRUE(lists.list.is_empty());
}

} // namespace
