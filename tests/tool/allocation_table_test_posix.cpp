// The memory that a table takes from the system and returns, as the kernel counts it.
#include "heap/table/allocation_table.h"

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <unistd.h>

namespace {

using namespace qor::heap;

std::size_t mapped_bytes() {
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

template <class SIZE>
void give_back_all() {
    constexpr std::size_t least = std::size_t{8} << 20;
    const auto table = std::make_unique<allocation_table<SIZE>>();
    for (int round = 0; round < 2; ++round) {
        const std::size_t before = mapped_bytes();
        // One block in each of many buckets, so that no chain needs malloc's memory.
        for (uint64 address = 16; address < (uint64{400'000} << 10); address += 1024)
            table->add(address, 8, 0);
        const std::size_t full = mapped_bytes();
        EXPECT_GE(full, before + least);
        table->free_all();
        EXPECT_LE(mapped_bytes(), full - least);
        uint32 live = 0;
        table->walk([&live](uint64, SIZE, uint32) { ++live; });
        EXPECT_EQ(live, 0u);
        EXPECT_EQ(table->release(16), nullptr);
    }
}

TEST(allocation_table_memory, returns_to_the_system_on_request) {
    give_back_all<uint32>();
    give_back_all<uint64>();
}

} // namespace
