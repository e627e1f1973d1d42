#include "support/recording_table.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using qor::test::assertion;
using qor::test::recording_table;
using calls = std::vector<std::string>;

constexpr char common_file[] = "qorcore/include/qor/glue/impl_common";

std::string created(const std::string& size, const std::string& block) {
    return "qor_do_malloc(0, " + size + ", true, " + common_file + ", 1842) = " + block;
}
std::string freed(const std::string& block) { return "qor_do_free(" + block + ", " + common_file + ", 1809)"; }

void expect_empty(const qorDataBlock& block) {
    EXPECT_EQ(block.ptr(), nullptr);
    EXPECT_EQ(block.Size(), 0u);
}

std::string text_of(const qorDataBlock& block) { return {static_cast<const char*>(block.ptr()), block.Size()}; }

TEST(data_block, begins_empty_and_allocates_nothing) {
    recording_table table;
    {
        qorDataBlock block;
        expect_empty(block);
        block.Free();
    }
    EXPECT_EQ(table.take(), calls{});
}

TEST(data_block, is_a_pointer_and_a_size) {
    static_assert(sizeof(qorDataBlock) == 2 * sizeof(void*));
    const recording_table table;
    qorDataBlock block;
    const void* const bytes = block.Create(7);
    const void* first;
    uint32 second;
    std::memcpy(&first, &block, sizeof first);
    std::memcpy(&second, reinterpret_cast<const char*>(&block) + sizeof first, sizeof second);
    EXPECT_EQ(first, bytes);
    EXPECT_EQ(second, 7u);
}

TEST(data_block, creates_and_frees) {
    recording_table table;
    {
        qorDataBlock block;
        const void* const bytes = block.Create(100);
        EXPECT_NE(bytes, nullptr);
        EXPECT_EQ(block.ptr(), bytes);
        EXPECT_EQ(block.Size(), 100u);
        EXPECT_EQ(table.take(), calls{created("100", "#1")});
        block.Create(50);
        EXPECT_EQ(block.Size(), 50u);
        EXPECT_EQ(table.take(), (calls{freed("#1"), created("50", "#2")}));
        block.Free();
        expect_empty(block);
        EXPECT_EQ(table.take(), calls{freed("#2")});
        block.Create(1);
        table.take();
    }
    EXPECT_EQ(table.take(), calls{freed("#3")});
}

TEST(data_block, of_no_bytes_is_still_an_allocation) {
    recording_table table;
    {
        qorDataBlock block;
        EXPECT_NE(block.Create(0), nullptr);
        EXPECT_EQ(block.Size(), 0u);
    }
    EXPECT_EQ(table.take(), (calls{created("0", "#1"), freed("#1")}));
}

TEST(data_block, attaches_a_copy) {
    recording_table table;
    qorDataBlock block;
    const char bytes[] = "bytes";
    block.AttachCopy(bytes, 5);
    EXPECT_EQ(text_of(block), "bytes");
    EXPECT_NE(block.ptr(), bytes);
    EXPECT_EQ(table.take(), calls{created("5", "#1")});
    block.AttachCopy(bytes, 2);
    EXPECT_EQ(text_of(block), "by");
    EXPECT_EQ(table.take(), (calls{freed("#1"), created("2", "#2")}));
    block.AttachCopy(nullptr, 0);
    EXPECT_EQ(block.Size(), 0u);
    EXPECT_EQ(table.take(), (calls{freed("#2"), created("0", "#3")}));
}

TEST(data_block, takes_over_and_gives_away) {
    recording_table table;
    qorDataBlock block;
    block.Create(3);
    void* const bytes = qor_do_malloc(0, 8, true, "test", 1);
    table.take();
    block.Attach(bytes, 8);
    EXPECT_EQ(table.take(), calls{freed("#1")});
    EXPECT_EQ(block.ptr(), bytes);
    EXPECT_EQ(block.Size(), 8u);
    EXPECT_EQ(block.Detach(), bytes);
    expect_empty(block);
    EXPECT_EQ(table.take(), calls{});
    EXPECT_EQ(block.Detach(), nullptr);
    qor_do_free(bytes, "test", 2);
}

TEST(data_block, steals_from_another) {
    recording_table table;
    qorDataBlock thief, victim;
    thief.Create(3);
    const void* const bytes = victim.Create(9);
    table.take();
    thief.Steal(victim);
    EXPECT_EQ(table.take(), calls{freed("#1")});
    EXPECT_EQ(thief.ptr(), bytes);
    EXPECT_EQ(thief.Size(), 9u);
    expect_empty(victim);
    thief.Steal(victim);
    EXPECT_EQ(table.take(), calls{freed("#2")});
    expect_empty(thief);
}

TEST(data_block, reallocates_without_freeing) {
    recording_table table;
    qorDataBlock block;
    EXPECT_NE(block.Realloc(4), nullptr);
    EXPECT_EQ(table.take(), calls{"qor_do_realloc(null, 4, " + std::string(common_file) + ", 1887) = #1"});
    std::memcpy(block.ptr(), "four", 4);
    const void* const grown = block.Realloc(100000);
    EXPECT_EQ(block.ptr(), grown);
    EXPECT_EQ(block.Size(), 100000u);
    EXPECT_EQ(text_of(block).substr(0, 4), "four");
    block.Realloc(2);
    EXPECT_EQ(text_of(block), "fo");
    EXPECT_EQ(table.take(), (calls{"qor_do_realloc(#1, 100000, " + std::string(common_file) + ", 1887) = #2",
                                   "qor_do_realloc(#2, 2, " + std::string(common_file) + ", 1887) = #3"}));
}

TEST(data_block, copies_another) {
    recording_table table;
    qorDataBlock source, target;
    source.AttachCopy("source", 6);
    target.Create(1);
    table.take();
    target.Copy(source);
    EXPECT_EQ(text_of(target), "source");
    EXPECT_EQ(text_of(source), "source");
    EXPECT_NE(target.ptr(), source.ptr());
    EXPECT_EQ(table.take(), (calls{freed("#2"), "qor_do_memdup(#1, 6, " + std::string(common_file) + ", 1897) = #3"}));
}

TEST(data_block, a_copy_of_itself_is_empty) {
    recording_table table;
    qorDataBlock block;
    block.AttachCopy("source", 6);
    table.take();
    block.Copy(block);
    expect_empty(block);
    EXPECT_EQ(table.take(), calls{freed("#1")});
}

TEST(data_block, a_copy_of_an_empty_one_is_empty_and_allocates_nothing) {
    recording_table table;
    qorDataBlock block;
    const qorDataBlock empty;
    block.Create(4);
    table.take();
    block.Copy(empty);
    expect_empty(block);
    EXPECT_EQ(table.take(), calls{freed("#1")});
    block.Copy(empty);
    expect_empty(block);
    EXPECT_EQ(table.take(), calls{});
}

TEST(data_block, an_offset_beyond_the_end_is_reported_and_returned) {
    recording_table table;
    qorDataBlock block;
    char* const bytes = static_cast<char*>(block.Create(4));
    const qorDataBlock& constant = block;
    table.take();
    EXPECT_EQ(block.ptr_at(0), bytes);
    EXPECT_EQ(block.ptr_at(3), bytes + 3);
    EXPECT_EQ(constant.ptr_at(3), bytes + 3);
    EXPECT_EQ(table.take(), calls{});
    EXPECT_EQ(block.ptr_at(4), bytes + 4);
    EXPECT_EQ(table.take(),
              calls{assertion("offset < m_data.size", "void* qorDataBlock::ptr_at(uint32)", common_file, 1858)});
    EXPECT_EQ(constant.ptr_at(4), bytes + 4);
    EXPECT_EQ(table.take(), calls{assertion("offset < m_data.size", "const void* qorDataBlock::ptr_at(uint32) const",
                                            common_file, 1865)});
}

TEST(data_block, an_empty_one_has_no_first_byte) {
    recording_table table;
    qorDataBlock block;
    EXPECT_EQ(block.ptr_at(0), nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block.ptr_at(5)), 5u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(std::as_const(block).ptr_at(0xffffffff)), 0xffffffffu);
    EXPECT_EQ(table.take().size(), 3u);
}

TEST(data_block, is_silent_without_a_table) {
    recording_table table;
    EXPECT_TRUE(table.unbound([] {
        qorDataBlock block;
        const qorDataBlock& constant = block;
        EXPECT_EQ(block.ptr_at(0), nullptr);
        EXPECT_EQ(constant.ptr_at(0), nullptr);
    }));
    EXPECT_EQ(table.take(), calls{});
}

TEST(data_block, without_memory_throws_in_its_client) {
    recording_table table;
    qorDataBlock block, source;
    source.AttachCopy("source", 6);
    block.Create(4);
    table.exhausted = true;
    EXPECT_THROW(block.Create(5), std::bad_alloc);
    expect_empty(block);
    EXPECT_THROW(block.AttachCopy("x", 1), std::bad_alloc);
    EXPECT_THROW(block.Copy(source), std::bad_alloc);
    expect_empty(block);
    EXPECT_THROW(source.Realloc(100), std::bad_alloc);
    EXPECT_EQ(text_of(source), "source");
}

} // namespace
