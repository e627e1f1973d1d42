// The memory routines, compared with byte-by-byte references: with every instruction set of this machine, and on every
// path that a plan can choose for a length.
#include "qor/qor.h"
#include "simd/simd.h"
#include "support/fenced_memory.h"
#include "support/scenes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <ostream>
#include <random>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using bytes = std::vector<uint8>;
using qor::simd::instruction_set;
using qor::simd::limits;
using qor::simd::plan;

constexpr uint8 guard = 0xa5;
constexpr uint64 guards = 64; // on each side

// An instruction set and a plan to use it: "machine" has this machine's plan. The others handle all but the first few
// bytes in one way. "low" has such small limits that lengths around each of them are cheap to test.
struct way {
    std::string name;
    plan by;
};

void PrintTo(const way& one, std::ostream* out) { *out << one.name; }

limits low_limits(const limits& machine) {
    limits low = machine;
    low.is_cold = [](void*, uint64 length) noexcept { return length % 2 == 0; };
    low.string_gap = 64;
    if (low.string_copy != nullptr)
        low.string_copy_from = 1500;
    if (low.string_fill != nullptr)
        low.string_fill_from = 1500;
    if (low.stream_copy != nullptr)
        low.cold_copy_from = 2000, low.stream_copy_from = 2500;
    if (low.stream_fill != nullptr)
        low.cold_fill_from = 2000, low.stream_fill_from = 2500;
    return low;
}

std::vector<way> all_ways() {
    std::vector<way> ways;
    const qor::simd::set_list here = qor::simd::available_sets();
    for (const instruction_set* set : std::span(here.sets, here.count)) {
        const limits machine = qor::simd::find_limits(*set, qor::simd::read_cache_sizes());
        const auto add = [&](const char* name, const limits& from) {
            ways.push_back({std::string(set->name) + "_" + name, plan{set, from}});
        };
        add("machine", machine);
        if (set->stream_copy == nullptr)
            continue;
        add("low", low_limits(machine));
        for (const auto& [name, kernel] : {std::pair("streams", set->stream_copy), {"pages", set->stream_pages}}) {
            limits streams;
            streams.stream_copy = kernel;
            streams.stream_fill = set->stream_fill;
            streams.stream_copy_from = streams.stream_fill_from = qor::simd::stream_minimum;
            add(name, streams);
        }
        if (machine.string_copy != nullptr) {
            limits strings = machine;
            strings.string_copy_from = strings.string_fill_from = 0;
            strings.stream_copy_from = strings.stream_fill_from = qor::simd::never;
            strings.cold_copy_from = strings.cold_fill_from = qor::simd::never;
            add("strings", strings);
        }
    }
    return ways;
}

class simd : public testing::TestWithParam<way> {
protected:
    void SetUp() override { qor::simd::install(GetParam().by); }
};

bytes random_bytes(uint64 size) {
    std::mt19937 random(1);
    bytes made(size);
    std::ranges::generate(made, [&] { return static_cast<uint8>(random()); });
    return made;
}

bool is_guard(const uint8* from, const uint8* to) {
    return std::all_of(from, to, [](uint8 one) { return one == guard; });
}

// Copies, compares, and checks that the bytes around are unchanged. `to` has guards on both sides.
bool copies(uint8* to, const uint8* from, uint64 length) {
    simd_memcpy_safe(to, from, length);
    const bool good =
        std::memcmp(to, from, length) == 0 && is_guard(to - guards, to) && is_guard(to + length, to + length + guards);
    std::memset(to, guard, length);
    return good;
}

// The five fills under one name. The narrow ones use the lower part of the wide value.
struct filler {
    const char* name;
    uint64 width;
    void (*fill)(void* to, uint64 value, uint64 length);
};
constexpr filler fillers[] = {
    {"zero", 1, [](void* to, uint64, uint64 length) { simd_zero(to, length); }},
    {"u8", 1, [](void* to, uint64 v, uint64 length) { simd_memset_u8(to, static_cast<uint8>(v), length); }},
    {"u16", 2, [](void* to, uint64 v, uint64 length) { simd_memset_u16(to, static_cast<uint16>(v), length); }},
    {"u32", 4, [](void* to, uint64 v, uint64 length) { simd_memset_u32(to, static_cast<uint32>(v), length); }},
    {"u64", 8, [](void* to, uint64 v, uint64 length) { simd_memset_u64(to, v, length); }},
};

constexpr uint64 value = 0x8796a5b4c3d2e1f0;

// The reference: byte by byte, each element in the byte order of the machine.
bytes filled(const filler& by, uint64 length) {
    bytes made(length);
    for (uint64 i = 0; i < length; ++i) {
        uint8 element[8] = {};
        const auto narrow16 = static_cast<uint16>(value);
        const auto narrow32 = static_cast<uint32>(value);
        if (by.width == 2)
            std::memcpy(element, &narrow16, 2);
        else if (by.width == 4)
            std::memcpy(element, &narrow32, 4);
        else if (by.width == 8)
            std::memcpy(element, &value, 8);
        else
            element[0] = by.fill == fillers[0].fill ? 0 : static_cast<uint8>(value);
        made[i] = element[i % by.width];
    }
    return made;
}

bool fills(const filler& by, uint8* to, const bytes& expected, uint64 length) {
    by.fill(to, value, length);
    const bool good = std::memcmp(to, expected.data(), length) == 0 && is_guard(to - guards, to) &&
                      is_guard(to + length, to + length + guards);
    std::memset(to, guard, length);
    return good;
}

// Returns the first multiple of `size` in `memory` after its guards.
uint8* aligned_in(bytes& memory, uint64 size) {
    const auto first = reinterpret_cast<std::uintptr_t>(memory.data()) + guards;
    return memory.data() + guards + (size - first % size) % size;
}

std::vector<uint64> lengths_around(std::initializer_list<uint64> limits, uint64 distance) {
    std::vector<uint64> lengths;
    for (const uint64 limit : limits)
        for (uint64 length = limit - distance; length <= limit + distance; ++length)
            lengths.push_back(length);
    return lengths;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(ways, simd, testing::ValuesIn(all_ways()),
                         [](const testing::TestParamInfo<way>& one) { return one.param.name; });

TEST_P(simd, copies_every_alignment_and_length) {
    constexpr uint64 longest = 1024;
    bytes memory(longest + 64 + 64 + 2 * guards, guard);
    uint8* const to = aligned_in(memory, 64);
    bytes sources = random_bytes(longest + 64 + 64 + guards);
    const uint8* const from = aligned_in(sources, 64);
    for (uint64 ahead = 0; ahead < 64; ++ahead)
        for (uint64 behind = 0; behind < 64; ++behind)
            for (uint64 length = 0; length <= longest; ++length)
                ASSERT_TRUE(copies(to + ahead, from + behind, length))
                    << "to +" << ahead << " from +" << behind << " length " << length;
}

TEST_P(simd, copies_around_every_limit) {
    const std::vector<uint64> lengths = lengths_around({1500, 2000, 2500}, 70);
    constexpr uint64 room = 2500 + 70 + 64;
    bytes memory(room + 64 + 2 * guards, guard);
    uint8* const to = aligned_in(memory, 64);
    bytes sources = random_bytes(room + 64 + guards);
    const uint8* const from = aligned_in(sources, 64);
    for (uint64 ahead = 0; ahead < 64; ahead += 3)
        for (const uint64 behind : {0, 1, 8, 31, 63})
            for (const uint64 length : lengths)
                ASSERT_TRUE(copies(to + ahead, from + behind, length))
                    << "to +" << ahead << " from +" << behind << " length " << length;
}

// If loads appear to depend on stores, copies go backwards.
TEST_P(simd, copies_at_every_distance_within_a_page) {
    constexpr uint64 page = 4096;
    constexpr uint64 room = 9000 + page;
    bytes memory(room + page + 2 * guards, guard);
    uint8* const to = aligned_in(memory, page);
    bytes sources = random_bytes(room + page + guards);
    const uint8* const from = aligned_in(sources, page);
    for (const uint64 behind : {0, 5, 64})
        for (uint64 distance = 0; distance < page; distance += distance < 80 || distance > 4000 ? 1 : 31)
            for (const uint64 length : {300, 600, 1025, 9000})
                ASSERT_TRUE(copies(to + (behind + distance) % page, from + behind, length))
                    << "from +" << behind << " distance " << distance << " length " << length;
}

TEST_P(simd, copies_aligned_buffers) {
    const uint64 alignment = qor_get_simd_alignment();
    ASSERT_EQ(alignment & (alignment - 1), 0u);
    constexpr uint64 longest = 3000;
    const bytes source = random_bytes(longest);
    auto* const from = static_cast<uint8*>(qor_do_malloc(alignment, longest, true, __FILE__, __LINE__));
    auto* const to = static_cast<uint8*>(qor_do_malloc(alignment, longest + guards, true, __FILE__, __LINE__));
    std::memcpy(from, source.data(), longest);
    std::memset(to, guard, longest + guards);
    for (uint64 length = 0; length <= longest; ++length) {
        simd_memcpy_aligned(to, from, length);
        ASSERT_EQ(std::memcmp(to, from, length), 0) << length;
        ASSERT_TRUE(is_guard(to + length, to + length + guards)) << length;
    }
    qor_do_free(to, __FILE__, __LINE__);
    qor_do_free(from, __FILE__, __LINE__);
}

TEST_P(simd, copies_a_buffer_onto_itself) {
    const bytes source = random_bytes(5000);
    for (uint64 length = 0; length <= source.size(); ++length) {
        bytes buffer(source);
        simd_memcpy_safe(buffer.data(), buffer.data(), length);
        ASSERT_EQ(buffer, source) << length;
    }
}

TEST_P(simd, fills_every_alignment_and_length) {
    constexpr uint64 longest = 1024;
    bytes memory(longest + 64 + 64 + 2 * guards, guard);
    uint8* const to = aligned_in(memory, 64);
    for (const filler& by : fillers) {
        const bytes expected = filled(by, longest);
        for (uint64 ahead = 0; ahead < 64; ++ahead)
            for (uint64 length = 0; length <= longest; ++length)
                ASSERT_TRUE(fills(by, to + ahead, expected, length))
                    << by.name << " to +" << ahead << " length " << length;
    }
}

TEST_P(simd, fills_around_every_limit) {
    const std::vector<uint64> lengths = lengths_around({1500, 2000, 2500}, 70);
    constexpr uint64 room = 2500 + 70 + 64;
    bytes memory(room + 64 + 2 * guards, guard);
    uint8* const to = aligned_in(memory, 64);
    for (const filler& by : fillers) {
        const bytes expected = filled(by, room);
        for (uint64 ahead = 0; ahead < 64; ++ahead)
            for (const uint64 length : lengths)
                ASSERT_TRUE(fills(by, to + ahead, expected, length))
                    << by.name << " to +" << ahead << " length " << length;
    }
}

// The lengths of this machine's own limits.
TEST_P(simd, serves_the_limits_of_this_machine) {
    const limits& from = GetParam().by.large;
    std::vector<uint64> lengths;
    for (const uint64 limit :
         {from.string_copy_from, from.string_fill_from, from.stream_copy_from, from.stream_fill_from,
          from.cold_copy_from, from.cold_fill_from})
        if (limit != qor::simd::never && limit > 0) {
            lengths.push_back(limit);
            if (std::getenv("QOR_TEST_WHOLE") != nullptr)
                lengths.insert(lengths.end(), {limit - 1, limit + 1});
        }
    lengths.push_back(100000);
    const uint64 longest = *std::ranges::max_element(lengths);
    bytes memory(longest + 2 * guards + 8, guard);
    const bytes source = random_bytes(longest + 8);
    for (const uint64 length : lengths) {
        ASSERT_TRUE(copies(memory.data() + guards + 3, source.data() + 1, length)) << length;
        for (const filler& by : {fillers[0], fillers[3]})
            ASSERT_TRUE(fills(by, memory.data() + guards + 5, filled(by, length), length)) << by.name << length;
    }
}

TEST_P(simd, touches_nothing_beyond_its_buffers) {
    const qor::test::fenced_memory to(8192), from(8192);
    const bytes source = random_bytes(8192);
    std::ranges::copy(source, from.begin());
    std::vector<uint64> lengths(1100);
    std::iota(lengths.begin(), lengths.end(), 0);
    for (const uint64 length : lengths_around({1500, 2500, 8192 - 20}, 20))
        lengths.push_back(length);
    for (const uint64 length : lengths) {
        for (uint8* const target : {to.begin(), to.end() - length})
            for (const uint8* const origin : {from.begin(), from.end() - length}) {
                simd_memcpy_safe(target, origin, length);
                ASSERT_EQ(std::memcmp(target, origin, length), 0) << length;
            }
        for (const filler& by : fillers)
            for (uint8* const target : {to.begin(), to.end() - length}) {
                by.fill(target, value, length);
                const bytes expected = filled(by, length);
                ASSERT_TRUE(std::ranges::equal(expected, std::span(target, length))) << by.name << length;
            }
    }
}

TEST_P(simd, touches_nothing_for_a_length_of_zero) {
    const qor::test::fenced_memory memory(1);
    for (void* const nowhere :
         {static_cast<void*>(memory.begin() - 1), static_cast<void*>(memory.end()), static_cast<void*>(nullptr)}) {
        simd_memcpy_safe(nowhere, nowhere, 0);
        simd_memcpy_aligned(nowhere, nowhere, 0);
        for (const filler& by : fillers)
            by.fill(nowhere, value, 0);
    }
}

// One thread writes a buffer and then signals it; the other must see the whole buffer.
TEST_P(simd, publishes_to_another_thread) {
    constexpr uint64 size = 6000;
    constexpr uint32 rounds = 2000;
    bytes buffer(size), source(size);
    std::atomic<uint32> written{0}, read{0};
    uint32 wrong = 0;
    std::thread reader([&] {
        for (uint32 round = 1; round <= rounds; ++round) {
            while (written.load(std::memory_order_acquire) != round)
                std::this_thread::yield();
            wrong += static_cast<uint32>(size - std::ranges::count(buffer, static_cast<uint8>(round)));
            read.store(round, std::memory_order_release);
        }
    });
    for (uint32 round = 1; round <= rounds; ++round) {
        if (round % 2 != 0) {
            simd_memset_u8(buffer.data(), static_cast<uint8>(round), size);
        } else {
            std::ranges::fill(source, static_cast<uint8>(round));
            simd_memcpy_safe(buffer.data(), source.data(), size);
        }
        written.store(round, std::memory_order_release);
        while (read.load(std::memory_order_acquire) != round)
            std::this_thread::yield();
    }
    reader.join();
    EXPECT_EQ(wrong, 0u);
}

// ---- which instruction set is used
namespace {

// Uses the entries from several threads at once before the choice is made, then prints the choice.
const qor::test::scene first_use{"simd_first_use", [](const qor::test::words&) {
                                     constexpr uint64 size = 5000;
                                     const bytes source = random_bytes(size);
                                     std::vector<std::thread> threads;
                                     for (int i = 0; i < 4; ++i)
                                         threads.emplace_back([&] {
                                             bytes copy(size), ones(size);
                                             simd_memcpy_safe(copy.data(), source.data(), size);
                                             EXPECT_EQ(copy, source);
                                             simd_memset_u16(ones.data(), 0x0101, size);
                                             EXPECT_EQ(ones, bytes(size, 1));
                                         });
                                     for (std::thread& one : threads)
                                         one.join();
                                     std::fputs(qor::simd::plan_in_use().set->name, stdout);
                                     return 0;
                                 }};

std::vector<std::string> names_here() {
    const qor::simd::set_list here = qor::simd::available_sets();
    std::vector<std::string> names;
    for (const instruction_set* set : std::span(here.sets, here.count))
        names.emplace_back(set->name);
    return names;
}

} // namespace

TEST(simd_sets, plain_is_everywhere_and_the_last) {
    ASSERT_FALSE(names_here().empty());
    EXPECT_EQ(names_here().back(), "plain");
}

TEST(simd_sets, the_environment_chooses) {
    for (const std::string& name : names_here()) {
        const qor::test::ending ended = qor::test::play(first_use, {}, {"QOR_SIMD=" + name});
        EXPECT_EQ(ended.code, 0) << ended.err;
        EXPECT_EQ(ended.out, name);
    }
}

TEST(simd_sets, the_best_one_serves_where_nothing_is_said) {
    for (const qor::test::words& environment : {qor::test::words{}, {"QOR_SIMD="}, {"QOR_SIMD=avx9000"}}) {
        const qor::test::ending ended = qor::test::play(first_use, {}, environment);
        EXPECT_EQ(ended.code, 0) << ended.err;
        EXPECT_EQ(ended.out, names_here().front());
    }
}

TEST(simd_sets, a_missing_one_stands_for_the_next) {
    const std::vector<std::string> all = {"avx512", "avx2", "sse2", "plain"};
    const std::vector<std::string> here = names_here();
    for (auto wanted = all.begin(); wanted != all.end(); ++wanted)
        EXPECT_EQ(qor::simd::choose_set(wanted->c_str()).name,
                  *std::find_first_of(wanted, all.end(), here.begin(), here.end()));
}

TEST(simd_sets, caches_are_told_by_the_system) {
    const qor::simd::cache_sizes sizes = qor::simd::read_cache_sizes();
    for (const uint64 size : {sizes.first_data, sizes.second, sizes.third})
        EXPECT_EQ(size % 1024, 0u) << size;
    EXPECT_LT(sizes.first_data, uint64{1} << 24);
}
