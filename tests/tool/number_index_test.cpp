// The index, compared with a plain map.
#include "heap/table/number_index.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace {

using namespace qor::heap;

// Few hashes, so that cells collide, and those at the end of the table wrap to its beginning.
void run_random(unsigned seed, unsigned hashes, unsigned keys) {
    std::mt19937 random(seed);
    const auto hash_of = [hashes](uint32 key) { return 0xffffffffu - key % hashes; };
    number_index index;
    std::map<uint32, uint32> plain; // number by key; a number belongs to the key number / 8
    for (unsigned step = 0; step < 20000; ++step) {
        const uint32 key = static_cast<uint32>(random() % keys);
        number_index::cell* const found = index.find(hash_of(key), [key](uint32 number) { return number / 8 == key; });
        const auto known = plain.find(key);
        ASSERT_EQ(found != nullptr, known != plain.end());
        if (found == nullptr) {
            index.add(hash_of(key), key * 8);
            plain[key] = key * 8;
            continue;
        }
        ASSERT_EQ(found->number, known->second);
        if (random() % 2 != 0) {
            index.remove(found);
            plain.erase(known);
        } else {
            found->number = known->second = key * 8 + static_cast<uint32>(random() % 8);
        }
    }
}

TEST(number_index, agrees_with_a_map) {
    for (unsigned seed = 0; seed < 10; ++seed)
        run_random(seed, 1u << 20, 1 + seed * 300);
}

TEST(number_index, agrees_with_a_map_where_hashes_collide) {
    for (unsigned seed = 0; seed < 10; ++seed)
        run_random(seed, 5, 60);
}

} // namespace
