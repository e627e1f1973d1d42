// Logs read in batches, directly and ahead: every line comes exactly once and in order.
#include "heap/log/heap_log.h"
#include "heap/table/allocation_table.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace qor::heap;
using namespace qor::test;
using mtrace_log = heap_log<log_lines::mtrace_line<uint32>>;
using extent = mtrace_log::extent;

struct seen {
    std::string caller;
    uint64 address;
    log_lines::kind kind;
    bool operator==(const seen&) const = default;
};

// A log of many batches with all kinds of lines, and the expected result of reading it.
struct long_log {
    explicit long_log(int lines) {
        for (int i = 0; i < lines; ++i) {
            const uint64 address = 0x10000 + static_cast<uint64>(i) * 16;
            char number[32];
            std::snprintf(number, sizeof number, "0x%llx", static_cast<unsigned long long>(address));
            if (i % 97 == 0)
                text += "= a comment\n\n";
            // Longer than a batch, and longer than a single read of the reader.
            const std::string caller =
                i % 5000 == 4999 ? std::string(i % 10000 == 9999 ? 40'000 : 600'000, 'x')
                                 : (i % 3 == 0 ? "app+" : "/usr/bin/application:[0x1234]+") + std::to_string(i % 100);
            if (i % 301 == 300) {
                text += "@ " + caller + "\n";
                expected.push_back({caller, 0, log_lines::kind::too_few_words});
            } else {
                text += "@ " + caller + (i % 7 == 0 ? "\t+   " : " + ") + number + " 0x8\n";
                expected.push_back({caller, address, log_lines::kind::record});
            }
        }
    }

    std::string text;
    std::vector<seen> expected;
};

std::vector<seen> read_all(mtrace_log& log, allocation_table<uint32>& table) {
    std::vector<seen> all;
    std::map<uint32, std::string> numbered;
    while (const mtrace_log::entry* const next = log.next(table)) {
        const bool is_record = next->kind == log_lines::kind::record;
        const std::string caller(log.text() + next->caller_at, next->caller_size);
        if (next->caller_id != text_ids::none) {
            EXPECT_EQ(numbered.emplace(next->caller_id, caller).first->second, caller);
        }
        all.push_back({caller, is_record ? next->address : 0, next->kind});
    }
    // Two hundred callers and two assigners of ids.
    EXPECT_LE(numbered.size(), 400u);
    return all;
}

class heap_logs : public testing::Test {
protected:
    temp_folder folder;
    std::unique_ptr<allocation_table<uint32>> table = std::make_unique<allocation_table<uint32>>();
};

TEST_F(heap_logs, every_line_comes_once_and_in_order) {
    const long_log made(20'000);
    const std::string path = folder.file("log", made.text);
    for (const extent how_much : {extent::whole, extent::part}) {
        mtrace_log log(0, nullptr);
        ASSERT_TRUE(log.open(path.c_str(), how_much));
        EXPECT_TRUE(read_all(log, *table) == made.expected);
        EXPECT_EQ(log.next(*table), nullptr);
        // The same object reads another log.
        ASSERT_TRUE(log.open(path.c_str(), how_much));
        EXPECT_TRUE(read_all(log, *table) == made.expected);
    }
}

TEST_F(heap_logs, a_short_one_and_none) {
    mtrace_log log(0, nullptr);
    EXPECT_FALSE(log.is_given());
    ASSERT_TRUE(log.open(folder.file("short", "@ a + 0x10 1").c_str(), extent::whole));
    EXPECT_TRUE(log.is_given());
    EXPECT_EQ(read_all(log, *table), (std::vector<seen>{{"a", 0x10, log_lines::kind::record}}));
    ASSERT_TRUE(log.open(folder.file("empty", "").c_str(), extent::whole));
    EXPECT_EQ(log.next(*table), nullptr);
    EXPECT_FALSE(log.open((folder / "missing").c_str(), extent::whole));
}

// Appends a hole, because a file of this length must not take disk space, and a text.
void append(const std::string& path, std::uintmax_t hole, const std::string& text) {
    const std::uintmax_t size = std::filesystem::file_size(path);
    std::filesystem::resize_file(path, size + hole);
    std::ofstream(path, std::ios::binary | std::ios::app) << text;
}

constexpr std::uintmax_t too_long = std::uintmax_t{257} << 20;

// A line that is too long is not a record, and causes a warning only if it begins as one. The log is still read to its
// end.
TEST_F(heap_logs, lines_that_are_too_long) {
    const long_log made(3000);
    const std::string path = folder.file("log", made.text + "@ app + 0x10 ");
    append(path, too_long, "\n@ behind + 0x10 1\n");
    append(path, too_long, "\n@ last + 0x20 1\n@ open + 0x30 ");
    append(path, too_long, "");
    std::vector<seen> expected = made.expected;
    expected.push_back({"app", 0, log_lines::kind::too_few_words});
    expected.push_back({"behind", 0x10, log_lines::kind::record});
    expected.push_back({"last", 0x20, log_lines::kind::record});
    expected.push_back({"open", 0, log_lines::kind::too_few_words});
    for (const extent how_much : {extent::whole, extent::part}) {
        mtrace_log log(0, nullptr);
        ASSERT_TRUE(log.open(path.c_str(), how_much));
        qorClearLastError();
        EXPECT_TRUE(read_all(log, *table) == expected);
        EXPECT_STREQ(log.failure().Text(), "");
    }
}

TEST_F(heap_logs, the_first_line_is_too_long) {
    const std::string path = folder.file("log", "@ app + 0x10 ");
    append(path, too_long, "\n@ behind + 0x10 1\n");
    mtrace_log log(0, nullptr);
    ASSERT_TRUE(log.open(path.c_str(), extent::whole));
    EXPECT_EQ(read_all(log, *table), (std::vector<seen>{{"app", 0, log_lines::kind::too_few_words},
                                                        {"behind", 0x10, log_lines::kind::record}}));
}

TEST_F(heap_logs, one_of_another_kind) {
    const auto beginning = [this](const std::string& text, extent how_much) {
        mtrace_log log(0, nullptr);
        EXPECT_TRUE(log.open(folder.file("log", text).c_str(), how_much));
        EXPECT_EQ(log.foreign_beginning(), "");
        while (log.next(*table) != nullptr) {
        }
        return std::string(log.foreign_beginning());
    };
    const std::string many(2'000'000, '\n');
    for (const extent how_much : {extent::whole, extent::part}) {
        EXPECT_EQ(beginning("", how_much), "");
        EXPECT_EQ(beginning("x\ny", how_much), "x\ny\n");
        EXPECT_EQ(beginning(many, how_much), std::string(1024, '\n'));
        EXPECT_EQ(beginning("@", how_much), "");
        EXPECT_EQ(beginning("x\n  = Start\n", how_much), "");
        EXPECT_EQ(beginning(many + "@ odd", how_much), "");
        EXPECT_EQ(beginning("\x7f"
                            "ELF\n@ odd\n",
                            how_much),
                  "\x7f"
                  "ELF\n@ odd\n");
    }
}

TEST_F(heap_logs, a_whole_one_has_no_error) {
    mtrace_log log(0, nullptr);
    ASSERT_TRUE(log.open(folder.file("log", long_log(3000).text).c_str(), extent::whole));
    qorSetLastError(qorError_not_open, "before");
    EXPECT_EQ(read_all(log, *table).size(), 3000u);
    EXPECT_STREQ(log.failure().Text(), "");
}

// The rest of the log is never read.
TEST_F(heap_logs, one_that_is_left_in_the_middle) {
    const std::string path = folder.file("log", long_log(20'000).text);
    for (int taken : {0, 1, 2000, 5000, 19'999}) {
        mtrace_log log(0, nullptr);
        ASSERT_TRUE(log.open(path.c_str(), extent::whole));
        for (int i = 0; i < taken; ++i)
            ASSERT_NE(log.next(*table), nullptr);
    }
}

} // namespace
