// Files of stacks: what they say, and where they end.
#include "heap/log/stacks_log.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace std::string_literals;
using qor::heap::stacks_log;
using ending = stacks_log::ending;

std::string number(uint64 value) {
    std::string bytes;
    for (; value > 0x7f; value >>= 7)
        bytes += static_cast<char>((value & 0x7f) | 0x80);
    return bytes + static_cast<char>(value);
}

std::string text(const std::string& value) { return number(value.size()) + value; }

template <class... NUMBERS>
std::string entry(NUMBERS... numbers) {
    return (number(numbers) + ...);
}

std::string module_entry(const std::string& path, const std::string& build_id) {
    return entry(2u, 0x1000u, 0x2000u, 0x3000u) + text(path) + text(build_id);
}

const std::string beginning = "QORSTK\x01\n";

class stacks_logs : public testing::Test {
protected:
    // The nodes of all stacks; then `log` has ended.
    std::vector<uint32> stacks_of(stacks_log& log, const std::string& entries) {
        EXPECT_TRUE(log.open(folder.file("stacks", beginning + entries).c_str()));
        std::vector<uint32> found;
        for (uint32 node = log.next(); log.how_it_ended() == ending::not_reached; node = log.next())
            found.push_back(node);
        return found;
    }
    ending ending_of(const std::string& entries) {
        stacks_log log;
        stacks_of(log, entries);
        EXPECT_EQ(log.next(), 0u);
        return log.how_it_ended();
    }

    qor::test::temp_folder folder;
};

TEST_F(stacks_logs, say_what_was_recorded) {
    stacks_log log;
    const std::string entries = entry(1u, 7u, 5u, 1000u, 64u) + text("/bin/app") + text("3.35") +
                                module_entry("/bin/app", "\x01\0\x02"s) + entry(5u, 0u, 1u, 0x10u) +
                                entry(5u, 1u, 0u, uint64{1} << 63) + entry(6u, 99u) + entry(7u, 99u) + text("worker") +
                                entry(8u, 20u) + entry(18u) + entry(10u, 1u) + entry(17u) + entry(16u) + entry(9u, 3u) +
                                text("no room") + entry(3u, 1u) + entry(4u, 1u);
    EXPECT_EQ(stacks_of(log, entries), (std::vector<uint32>{2, 1, 0}));
    EXPECT_EQ(log.how_it_ended(), ending::whole);
    EXPECT_EQ(log.of().pid, 7u);
    EXPECT_EQ(log.of().parent, 5u);
    EXPECT_EQ(log.of().start_ns, 1000u);
    EXPECT_EQ(log.of().depth, 64u);
    EXPECT_EQ(log.of().path, "/bin/app");
    EXPECT_EQ(log.of().recorder, "3.35");
    ASSERT_EQ(log.modules().size(), 2u);
    EXPECT_EQ(log.modules()[1].path, "/bin/app");
    EXPECT_EQ(log.modules()[1].build_id, "\x01\0\x02"s);
    EXPECT_EQ(log.modules()[1].base, 0x1000u);
    EXPECT_EQ(log.modules()[1].begin, 0x2000u);
    EXPECT_EQ(log.modules()[1].end, 0x3000u);
    ASSERT_EQ(log.nodes().size(), 3u);
    EXPECT_EQ(log.nodes()[2].parent, 1u);
    EXPECT_EQ(log.nodes()[2].address, uint64{1} << 63);
    EXPECT_EQ(log.nodes()[2].depth, 2u);
    EXPECT_EQ(log.nodes()[1].module, 1u);
    EXPECT_EQ(log.time_ns(), 20u);
    EXPECT_TRUE(log.has_times());
    EXPECT_EQ(log.stack_count(), 3u);
    ASSERT_EQ(log.losses().size(), 1u);
    EXPECT_EQ(log.losses()[0].records, 3u);
    EXPECT_EQ(log.losses()[0].reason, "no room");
}

TEST_F(stacks_logs, tell_inherited_blocks_from_others) {
    stacks_log log;
    ASSERT_TRUE(log.open(folder.file("stacks", beginning + entry(10u, 2u, 16u, 16u, 16u, 10u, 2u, 16u)).c_str()));
    for (const bool is_inherited : {true, true, false, true}) {
        log.next();
        EXPECT_EQ(log.is_inherited(), is_inherited);
    }
    // One more is announced, but the file has ended.
    log.next();
    EXPECT_FALSE(log.is_inherited());
}

TEST_F(stacks_logs, are_usable_up_to_where_they_are_cut_off) {
    const std::string entries = entry(1u, 7u, 5u, 1000u, 64u) + text("/bin/app") + text("3.35") + entry(16u) +
                                module_entry("/lib/a.so", "id") + entry(5u, 0u, 1u, 0x1234567u) + entry(17u) +
                                entry(9u, 3u) + text("why") + entry(16u);
    for (std::size_t size = 0; size <= entries.size(); ++size) {
        stacks_log log;
        const std::vector<uint32> found = stacks_of(log, entries.substr(0, size));
        const std::vector<uint32> all = {0, 1, 0};
        ASSERT_LE(found.size(), all.size()) << size;
        EXPECT_TRUE(std::equal(found.begin(), found.end(), all.begin())) << size;
        EXPECT_TRUE(log.how_it_ended() == ending::whole || log.how_it_ended() == ending::cut_off) << size;
        EXPECT_EQ(found.size() == all.size(), size == entries.size()) << size;
    }
}

TEST_F(stacks_logs, numbers_of_any_length_are_read) {
    stacks_log log;
    std::string entries;
    for (uint32 i = 0; i < 17000; ++i)
        entries += entry(5u, 0u, 0u, i);
    std::vector<uint32> wanted;
    for (const uint32 node : {0u, 1u, 111u, 112u, 16367u, 16368u, 17000u}) {
        entries += entry(node + 16);
        wanted.push_back(node);
    }
    entries += "\x90\x80\x80\x80\x00"s; // 16, longer than it has to be
    wanted.push_back(0);
    EXPECT_EQ(stacks_of(log, entries), wanted);
    EXPECT_EQ(log.how_it_ended(), ending::whole);
}

TEST_F(stacks_logs, end_at_what_cannot_be) {
    EXPECT_EQ(ending_of(entry(17u)), ending::damaged);                                          // a node to come
    EXPECT_EQ(ending_of(entry(16u + (1u << 20))), ending::damaged);                             // in the fast way too
    EXPECT_EQ(ending_of(entry(5u, 1u, 0u, 0u)), ending::damaged);                               // its own parent
    EXPECT_EQ(ending_of(entry(5u, 0u, 1u, 0u)), ending::damaged);                               // a module to come
    EXPECT_EQ(ending_of(entry(3u, 0u)), ending::damaged);                                       // no module
    EXPECT_EQ(ending_of(entry(4u, 1u)), ending::damaged);                                       // a module to come
    EXPECT_EQ(ending_of(std::string(10, '\xff') + "\x01"), ending::damaged);                    // 70 bits
    EXPECT_EQ(ending_of("\x08" + std::string(9, '\xff') + "\x02"), ending::damaged);            // 65 bits
    EXPECT_EQ(ending_of("\x08" + std::string(9, '\xff') + "\x01" + entry(16u)), ending::whole); // 64 bits
    for (const uint32 kind : {0u, 11u, 12u, 13u, 14u, 15u})
        EXPECT_EQ(ending_of(entry(16u, kind, 16u)), ending::newer);
}

TEST_F(stacks_logs, have_limits) {
    EXPECT_EQ(ending_of(entry(7u, 1u) + text(std::string(stacks_log::longest_text, 'x'))), ending::whole);
    EXPECT_EQ(ending_of(entry(7u, 1u) + text(std::string(stacks_log::longest_text + 1, 'x'))), ending::limit);
    std::string deep;
    for (uint32 i = 0; i < stacks_log::most_depth; ++i)
        deep += entry(5u, i, 0u, 0u);
    EXPECT_EQ(ending_of(deep), ending::whole);
    EXPECT_EQ(ending_of(deep + entry(5u, stacks_log::most_depth, 0u, 0u)), ending::limit);
    std::string modules;
    for (uint32 i = 0; i < stacks_log::most_modules; ++i)
        modules += module_entry("", "");
    EXPECT_EQ(ending_of(modules), ending::whole);
    EXPECT_EQ(ending_of(modules + module_entry("", "")), ending::limit);
    std::string texts;
    for (std::size_t size = 0; size < stacks_log::most_text; size += stacks_log::longest_text)
        texts += module_entry(std::string(stacks_log::longest_text, 'x'), "");
    EXPECT_EQ(ending_of(texts), ending::whole);
    EXPECT_EQ(ending_of(texts + module_entry("x", "")), ending::limit);
}

TEST_F(stacks_logs, keep_a_bounded_number_of_losses) {
    std::string entries;
    for (std::size_t i = 0; i < stacks_log::most_losses + 10; ++i)
        entries += entry(9u, 2u) + text("why");
    stacks_log log;
    stacks_of(log, entries);
    ASSERT_EQ(log.losses().size(), stacks_log::most_losses);
    EXPECT_EQ(log.losses().back().records, 22u);
}

TEST_F(stacks_logs, of_another_kind_are_refused) {
    for (const std::string& content : {""s, "QORSTK"s, "QORSTK\x02\n"s, "@ app + 0x10 0x8\n"s}) {
        stacks_log log;
        EXPECT_FALSE(log.open(folder.file("other", content).c_str()));
        qorString reason;
        EXPECT_EQ(qorGetLastError(reason), static_cast<uint32>(qorError_none));
        EXPECT_EQ(log.next(), 0u);
    }
    stacks_log log;
    EXPECT_FALSE(log.open((folder / "missing").c_str()));
    qorString reason;
    EXPECT_EQ(qorGetLastError(reason), static_cast<uint32>(qorError_cannot_open_file));
}

// The recorder goes on behind the end that the reader has seen.
TEST_F(stacks_logs, grow) {
    const std::string path = folder.file("stacks", beginning + entry(5u, 0u, 0u, 1u) + "\x05");
    stacks_log log;
    ASSERT_TRUE(log.open(path.c_str()));
    int waits = 0;
    log.set_at_end([&] {
        if (++waits == 2)
            folder.file("stacks", beginning + entry(5u, 0u, 0u, 1u) + entry(5u, 1u, 0u, 2u) + entry(18u));
        return waits < 5;
    });
    EXPECT_EQ(log.next(), 2u);
    EXPECT_EQ(log.next(), 0u);
    EXPECT_EQ(log.how_it_ended(), ending::whole);
    EXPECT_EQ(waits, 5);
}

} // namespace
