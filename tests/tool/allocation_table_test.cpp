// The packed table, compared with a plain one that follows the rules directly: chains of blocks of 1,024 slots.
#include "heap/table/allocation_table.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <vector>

namespace {

using namespace qor::heap;

struct live {
    uint64 address;
    uint64 size;
    uint32 origin;
    bool operator==(const live&) const = default;
};

class plain_table {
public:
    struct place {
        std::vector<std::array<live, 1024>>* chain;
        std::size_t block;
        std::size_t slot;
    };

    place find_blank(uint64 address) {
        auto& chain = m_buckets[(address >> 10) & 0xfffff];
        for (std::size_t block = 0; block < chain.size(); ++block)
            for (std::size_t slot = 0; slot < 1024; ++slot)
                if (chain[block][slot].address == 0)
                    return {&chain, block, slot};
        chain.emplace_back();
        return {&chain, chain.size() - 1, 0};
    }

    bool find(uint64 address, place& found) {
        auto& chain = m_buckets[(address >> 10) & 0xfffff];
        for (std::size_t block = 0; block < chain.size(); ++block)
            for (std::size_t slot = 0; slot < 1024; ++slot)
                if (chain[block][slot].address == address) {
                    found = {&chain, block, slot};
                    return true;
                }
        return false;
    }

    std::optional<live> release(uint64 address) {
        place found{};
        if (!find(address, found))
            return {};
        live& slot = (*found.chain)[found.block][found.slot];
        const live released = slot;
        slot.address = 0;
        return released;
    }

    std::vector<live> walk() const {
        std::vector<live> all;
        for (const auto& [bucket, chain] : m_buckets)
            for (const auto& block : chain)
                for (const live& each : block)
                    if (each.address != 0)
                        all.push_back(each);
        return all;
    }

private:
    std::map<uint64, std::vector<std::array<live, 1024>>> m_buckets;
};

template <class SIZE>
std::vector<live> walk(const allocation_table<SIZE>& table) {
    std::vector<live> all;
    table.walk([&](uint64 address, SIZE size, uint32 origin) { all.push_back({address, size, origin}); });
    return all;
}

// Places the table in memory that is not zero, as an analyser's may be, so that a read of an unwritten field is
// detected.
template <class SIZE>
class table_in_used_memory : public allocation_table<SIZE> {
public:
    table_in_used_memory() {} // zeroes nothing, unlike a defaulted constructor

    [[gnu::noinline]] static void* operator new(std::size_t size) {
        return std::memset(::operator new(size), 0x55, size);
    }
    static void operator delete(void* memory) noexcept { ::operator delete(memory); }
};

template <class SIZE>
struct both_tables {
    using table = allocation_table<SIZE>;

    std::unique_ptr<table_in_used_memory<SIZE>> packed = std::make_unique<table_in_used_memory<SIZE>>();
    plain_table plain;

    // The size has bits at both ends, if it is wide enough.
    void allocate(uint64 address, uint32 number) {
        const SIZE size = static_cast<SIZE>(number * uint64{0x100000001});
        const typename table::__entry entry = packed->find_blank(address);
        const plain_table::place place = plain.find_blank(address);
        ASSERT_EQ(entry.block, place.block);
        ASSERT_EQ(entry.slot, place.slot);
        packed->set(entry, address, size, number + 1);
        (*place.chain)[place.block][place.slot] = {address, size, number + 1};
    }

    void release(uint64 address) {
        const std::optional<live> expected = plain.release(address);
        const auto* const released = packed->release(address);
        ASSERT_EQ(released != nullptr, expected.has_value()) << address;
        if (released != nullptr && address != 0) {
            EXPECT_EQ((live{address, released->size, released->origin}), *expected);
        }
    }

    void look_up(uint64 address) {
        typename table::__entry entry{};
        plain_table::place place{};
        const bool found = plain.find(address, place);
        ASSERT_EQ(packed->find_entry(address, entry), found);
        if (found) {
            ASSERT_EQ(entry.block, place.block);
            ASSERT_EQ(entry.slot, place.slot);
            ASSERT_EQ(packed->address(entry), address);
            ASSERT_EQ(packed->size(entry), (*place.chain)[place.block][place.slot].size);
        }
    }

    ~both_tables() { packed->free_all(); }

    void compare() { ASSERT_EQ(walk(*packed), plain.walk()); }
};

// Draws addresses so that buckets are shared, chains grow past one block, and some releases miss.
template <class SIZE>
void run_random(unsigned seed, unsigned steps, uint64 spread, unsigned keep_percent) {
    std::mt19937_64 random(seed);
    both_tables<SIZE> tables;
    std::vector<uint64> known{1};
    for (unsigned step = 0; step < steps; ++step) {
        const unsigned what = static_cast<unsigned>(random() % 100);
        const uint64 old = known[random() % known.size()];
        if (what < keep_percent) {
            // The same range, the same bucket by bits above bit 29, or a repeated address.
            const uint64 fresh = 1 + random() % spread + ((random() % 4) << 30);
            const uint64 address = random() % 16 == 0 ? old : fresh;
            tables.allocate(address, static_cast<uint32>(step));
            known.push_back(address);
        } else if (what < 98) {
            tables.release(old);
        } else {
            tables.look_up(old);
        }
        if (::testing::Test::HasFatalFailure())
            return;
    }
    tables.compare();
}

TEST(allocation_table, agrees_with_the_plain_table_on_few_buckets) {
    for (unsigned seed = 0; seed < 20; ++seed) {
        run_random<uint32>(seed, 6000, 3000, 60);
        run_random<uint64>(seed, 6000, 3000, 60);
    }
}

TEST(allocation_table, agrees_with_the_plain_table_where_a_bucket_overflows) {
    for (unsigned seed = 0; seed < 5; ++seed) {
        run_random<uint32>(seed, 9000, 1022, 70);
        run_random<uint64>(seed, 9000, 1022, 70);
    }
}

// Chains of several blocks that are emptied and filled again, with addresses that are live once, several times, or
// always.
TEST(allocation_table, agrees_with_the_plain_table_on_long_chains) {
    for (const uint64 addresses : {uint64{1}, uint64{50}, uint64{3000}, uint64{1} << 34}) {
        std::mt19937_64 random(addresses);
        both_tables<uint64> tables;
        std::vector<uint64> live;
        for (uint32 step = 0; step < 16000; ++step) {
            if (live.empty() || random() % 100 < (step / 4000 % 2 == 0 ? 95u : 25u)) {
                live.push_back(0x1000 + ((random() % addresses) << 30));
                tables.allocate(live.back(), step);
            } else {
                std::swap(live[random() % live.size()], live.back());
                tables.release(live.back());
                live.pop_back();
            }
            if (step % 64 == 0) {
                tables.release(0x1000 + ((random() % (2 * addresses)) << 30 | 1)); // never allocated
                tables.look_up(live.empty() ? 0x1000 : live[random() % live.size()]);
                tables.packed->prefetch_head(0x1000);
                tables.packed->prefetch_block(0x1000);
            }
            if (HasFatalFailure())
                return;
        }
        tables.compare();
    }
}

TEST(allocation_table, address_zero_in_a_chain_of_several_blocks) {
    both_tables<uint64> tables;
    for (uint64 i = 1; i <= 2048; ++i)
        tables.allocate(i << 30, 1);
    tables.release(0); // all slots are live
    tables.release(uint64{5} << 30);
    tables.release(0);
    tables.allocate(0, 2);
    tables.release(0); // the slot stayed blank
    tables.allocate(uint64{5} << 30, 3);
    tables.release(0);
    tables.allocate(uint64{9} << 40, 4); // the third block
    tables.release(0);
    tables.compare();
}

TEST(allocation_table, live_slots_take_new_origins) {
    both_tables<uint64> tables;
    for (uint32 i = 1; i < 5000; ++i)
        tables.allocate(uint64{i} << (i % 2 == 0 ? 30 : 4), i);
    for (uint32 i = 1; i < 5000; i += 3)
        tables.release(uint64{i} << (i % 2 == 0 ? 30 : 4));
    tables.packed->renumber_origins([](uint32 origin) { return origin + 100; });
    std::vector<live> expected = tables.plain.walk();
    for (live& each : expected)
        each.origin += 100;
    EXPECT_EQ(walk(*tables.packed), expected);
}

TEST(allocation_table, agrees_with_the_plain_table_on_many_buckets) {
    for (unsigned seed = 0; seed < 5; ++seed) {
        run_random<uint32>(seed, 20000, uint64{1} << 34, 55);
        run_random<uint64>(seed, 20000, uint64{1} << 34, 55);
    }
}

TEST(allocation_table, a_bucket_holds_more_than_one_block) {
    both_tables<uint32> tables;
    for (uint32 i = 0; i < 1025; ++i)
        tables.allocate(0x40000 + i % 1024, i);
    allocation_table<uint32>::__entry last = tables.packed->find_blank(0x40000);
    EXPECT_EQ(last.block, 1u);
    EXPECT_EQ(last.slot, 1u);
    tables.release(0x40000); // slot 0 of the first block
    const allocation_table<uint32>::__entry reused = tables.packed->find_blank(0x40000);
    EXPECT_EQ(reused.block, 0u);
    EXPECT_EQ(reused.slot, 0u);
    tables.compare();
}

TEST(allocation_table, addresses_that_share_a_bucket_are_told_apart) {
    both_tables<uint32> tables;
    tables.allocate(0x1000, 1);
    tables.allocate(0x1000 + (uint64{1} << 30), 2);
    EXPECT_EQ(allocation_table<uint32>::bucket_of(0x1000),
              allocation_table<uint32>::bucket_of(0x1000 + (uint64{1} << 30)));
    tables.release(0x1000);
    tables.look_up(0x1000);
    tables.look_up(0x1000 + (uint64{1} << 30));
    tables.compare();
}

TEST(allocation_table, a_held_slot_stays_valid_while_its_block_grows) {
    allocation_table<uint32>& table = *new allocation_table<uint32>; // 8 MiB: too large for a stack
    const allocation_table<uint32>::__entry held = table.find_blank(0x1000);
    table.set(held, 0x1000, 7, 70);
    for (uint32 i = 1; i < 3000; ++i)
        table.set(table.find_blank(0x1000), 0x1000 + i % 1024, i, i);
    EXPECT_EQ(table.address(held), 0x1000u);
    EXPECT_EQ(table.origin(held), 70u);
    table.set_origin(held, 71);
    EXPECT_EQ(walk(table).front(), (live{0x1000, 7, 71}));
    table.free_all();
    delete &table;
}

TEST(allocation_table, address_zero_is_held_by_any_blank_slot_of_its_bucket) {
    both_tables<uint32> tables;
    tables.release(0); // no block yet
    tables.allocate(0x10, 1);
    tables.release(0); // the slots behind the first are blank
    tables.allocate(0, 2);
    tables.compare(); // it cannot be held
    for (uint32 i = 1; i < 1024; ++i)
        tables.allocate(0x10 + i % 1000, i);
    tables.release(0); // every slot of the one block is live
}

} // namespace
