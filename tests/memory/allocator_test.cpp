#include "qor/qor.h"
#include "support/scenes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <random>
#include <thread>

namespace {

using qor::test::words;

constexpr char file[] = "tests/allocator";
constexpr uint64 too_much = uint64{1} << 62;

bool is_aligned(const void* block, uint64 alignment) {
    return reinterpret_cast<std::uintptr_t>(block) % alignment == 0;
}

std::string text_and_free(char* text) {
    const std::string result = text;
    qor_do_free(text, file, __LINE__);
    return result;
}

// Calls each operation once, while blocks are tracked and after tracking has ended.
void use_all_operations() {
    char* block = static_cast<char*>(qor_do_malloc(0, 10, true, file, 1));
    std::memcpy(block, "123456789", 10);
    block = static_cast<char*>(qor_do_realloc(block, 100000, file, 2));
    EXPECT_STREQ(block, "123456789");
    block = static_cast<char*>(qor_do_realloc(block, 5, file, 3));
    EXPECT_EQ(std::memcmp(block, "12345", 5), 0);
    block = static_cast<char*>(qor_do_realloc(block, 0, file, 4));
    ASSERT_NE(block, nullptr);
    qor_do_free(block, file, 5);
    qor_do_free(qor_do_realloc(nullptr, 7, file, 6), file, 7);
    qor_do_free(nullptr, file, 8);
    qor_do_huge_free(nullptr, file, 9);
    EXPECT_EQ(text_and_free(qor_do_strdup("text", file, 10)), "text");
    void* const huge = qor_do_huge_alloc(1, file, 11);
    std::memset(huge, 1, 1);
    qor_do_huge_free(huge, file, 12);
    qor::glue::qor_do_delete(qor::glue::qor_do_new(48, file, 13));
    qor::glue::qor_do_delete(nullptr);
}

const qor::test::scene without_tracking{"allocator_without_tracking", [](const words&) {
                                            void* const early = qor_do_malloc(0, 100, true, file, 1);
                                            void* const early_huge = qor_do_huge_alloc(100, file, 2);
                                            void* const early_object = qor::glue::qor_do_new(100, file, 3);
                                            use_all_operations();
                                            qorStringArray args;
                                            args.Append("program");
                                            EXPECT_TRUE(qorInitProcess("program", args, 0));
                                            use_all_operations();
                                            // Blocks that were recorded before the decision can be freed as always.
                                            qor_do_free(qor_do_realloc(early, 200, file, 4), file, 5);
                                            qor_do_huge_free(early_huge, file, 6);
                                            qor::glue::qor_do_delete(early_object);
                                            return 0;
                                        }};

} // namespace

TEST(allocator, every_operation_before_and_after_the_start) {
    const qor::test::ending ended = qor::test::play(without_tracking);
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
    EXPECT_EQ(ended.err, "");
}

TEST(allocator, alignment) {
    for (uint64 alignment = 1; alignment <= 1 << 20; alignment *= 2)
        for (const uint64 size : {0, 1, 7, 4096}) {
            void* const block = qor_do_malloc(alignment, size, true, file, __LINE__);
            EXPECT_TRUE(is_aligned(block, std::max<uint64>(alignment, alignof(std::max_align_t)))) << alignment;
            std::memset(block, 0xaa, size);
            qor_do_free(block, file, __LINE__);
        }
    void* const block = qor_do_malloc(0, 1, true, file, __LINE__);
    EXPECT_TRUE(is_aligned(block, alignof(std::max_align_t)));
    qor_do_free(block, file, __LINE__);
}

TEST(allocator, an_aligned_block_can_grow) {
    char* block = static_cast<char*>(qor_do_malloc(4096, 10, true, file, __LINE__));
    std::memcpy(block, "123456789", 10);
    block = static_cast<char*>(qor_do_realloc(block, 1 << 20, file, __LINE__));
    EXPECT_STREQ(block, "123456789");
    qor_do_free(block, file, __LINE__);
}

TEST(allocator, an_alignment_is_a_power_of_two) {
    for (const uint64 alignment : {3, 12, 100, 4095}) {
        qorClearLastError();
        EXPECT_EQ(qor_do_malloc(alignment, 1, false, file, __LINE__), nullptr);
        qorString text;
        EXPECT_EQ(qorGetLastError(text), qorError_invalid_argument);
    }
    EXPECT_THROW((void)qor_do_malloc(3, 1, true, file, __LINE__), std::bad_alloc);
}

TEST(allocator, a_size_of_0_is_a_block_of_its_own) {
    void* const first = qor_do_malloc(0, 0, true, file, __LINE__);
    void* const second = qor_do_malloc(64, 0, true, file, __LINE__);
    void* const third = qor_do_memdup(nullptr, 0, file, __LINE__);
    EXPECT_NE(first, nullptr);
    EXPECT_NE(second, nullptr);
    EXPECT_NE(third, nullptr);
    EXPECT_NE(first, second);
    EXPECT_NE(first, third);
    qor_do_free(first, file, __LINE__);
    qor_do_free(second, file, __LINE__);
    qor_do_free(third, file, __LINE__);
}

TEST(allocator, copies) {
    const char bytes[] = {1, 0, 2, 0};
    char* const copy = static_cast<char*>(qor_do_memdup(bytes, sizeof bytes, file, __LINE__));
    EXPECT_EQ(std::memcmp(copy, bytes, sizeof bytes), 0);
    qor_do_free(copy, file, __LINE__);
    EXPECT_EQ(text_and_free(qor_do_strdup("", file, __LINE__)), "");
    EXPECT_EQ(text_and_free(qor_do_strdup("text", file, __LINE__)), "text");
    EXPECT_EQ(text_and_free(qor_do_strndup("text", 0, file, __LINE__)), "");
    EXPECT_EQ(text_and_free(qor_do_strndup("text", 3, file, __LINE__)), "tex");
    EXPECT_EQ(text_and_free(qor_do_strndup("text", 4, file, __LINE__)), "text");
    EXPECT_EQ(text_and_free(qor_do_strndup("text", 0xffffffff, file, __LINE__)), "text");
    // Text without a terminator is not read beyond its length.
    const std::string exact(4096, 'x');
    char* const part = static_cast<char*>(std::malloc(4096));
    std::memcpy(part, exact.data(), 4096);
    EXPECT_EQ(text_and_free(qor_do_strndup(part, 4096, file, __LINE__)), exact);
    std::free(part);
}

TEST(allocator, growing_and_shrinking_keeps_the_bytes) {
    std::mt19937 random(4711);
    std::vector<unsigned char> model;
    unsigned char* block = nullptr;
    for (int round = 0; round < 500; ++round) {
        const std::size_t size = random() % 100000 + 1;
        block = static_cast<unsigned char*>(qor_do_realloc(block, size, file, __LINE__));
        const std::size_t kept = std::min(model.size(), size);
        ASSERT_TRUE(std::equal(block, block + kept, model.begin()));
        model.resize(size);
        for (std::size_t i = kept; i < size; ++i)
            block[i] = model[i] = static_cast<unsigned char>(random());
    }
    qor_do_free(block, file, __LINE__);
}

TEST(allocator, huge_blocks_are_zeroed_pages) {
    const long page = 4096;
    for (const uint64 size : {uint64{0}, uint64{1}, uint64{page}, uint64{page + 1}, uint64{10'000'000}}) {
        char* const block = static_cast<char*>(qor_do_huge_alloc(size, file, __LINE__));
        EXPECT_TRUE(is_aligned(block, page));
        EXPECT_EQ(std::accumulate(block, block + size, 0), 0);
        std::memset(block, 0xaa, size);
        qor_do_huge_free(block, file, __LINE__);
    }
}

namespace {

// Where a log is written, that shows it.
const qor::test::scene no_huge_block{"allocator_no_huge_block", [](const words&) {
                                         int none = 0;
                                         qor_do_huge_free(&none, "the/caller", 17);
                                         return 0;
                                     }};

} // namespace

TEST(allocator, a_huge_block_that_is_none_is_reported) {
    const std::string report = qor::test::play(no_huge_block).err;
    EXPECT_NE(report.find("assertion failed: block is a live huge block"), std::string::npos) << report;
    EXPECT_NE(report.find("(the/caller:17)"), std::string::npos) << report;
}

TEST(allocator, threads) {
    std::vector<std::thread> threads;
    std::atomic<bool> whole{true};
    for (unsigned i = 0; i < 8; ++i)
        threads.emplace_back([i, &whole] {
            std::mt19937 random(i);
            std::vector<unsigned char*> blocks;
            for (int round = 0; round < 2000; ++round) {
                const std::size_t size = random() % 300 + 1;
                auto* const block = static_cast<unsigned char*>(qor_do_malloc(0, size, true, file, __LINE__));
                std::memset(block, static_cast<int>(i), size);
                blocks.push_back(block);
                unsigned char*& chosen = blocks[random() % blocks.size()];
                if (*chosen != i)
                    whole = false;
                std::swap(chosen, blocks.back());
                qor_do_free(qor_do_realloc(blocks.back(), random() % 300, file, __LINE__), file, __LINE__);
                blocks.pop_back();
            }
            for (unsigned char* const block : blocks)
                qor_do_free(block, file, __LINE__);
        });
    for (std::thread& each : threads)
        each.join();
    EXPECT_TRUE(whole);
}

namespace {

const qor::test::scene no_memory{
    "allocator_no_memory", [](const words&) {
        EXPECT_EQ(qor_do_malloc(0, too_much, false, file, __LINE__), nullptr);
        EXPECT_EQ(qor_do_malloc(64, too_much, false, file, __LINE__), nullptr);
        EXPECT_THROW((void)qor_do_malloc(0, too_much, true, file, __LINE__), std::bad_alloc);
        EXPECT_THROW((void)qor_do_huge_alloc(too_much, file, __LINE__), std::bad_alloc);
        char* const block = qor_do_strdup("still there", file, __LINE__);
        EXPECT_THROW((void)qor_do_realloc(block, too_much, file, __LINE__), std::bad_alloc);
        EXPECT_STREQ(block, "still there");
        qor_do_free(block, file, __LINE__);
        return 0;
    }};

} // namespace

TEST(allocator, memory_that_is_not_there) {
    const qor::test::ending ended = qor::test::play(
        no_memory, {}, {"ASAN_OPTIONS=allocator_may_return_null=1", "TSAN_OPTIONS=allocator_may_return_null=1"});
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
}
